// Start-up macro: loads the default key bindings and the search commands.
#include "keys.e"

defmain()
{
    load_keys();
    message("Corvane ready");
}
