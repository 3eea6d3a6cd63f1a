// Incremental search forward and backward.
_command void find(_str text = "")
{
    if (text == "") text = prompt("Find: ");
    search(text, "I");
}

_command void find_backward(_str text = "")
{
    if (text == "") text = prompt("Find backward: ");
    search(text, "-I");
}
