// Default key bindings.
_command void load_keys()
{
    bind_key("C-S", "save");
    bind_key("C-O", "open");
    bind_key("C-F", "find");
    bind_key("C-G", "goto_line");
}
