// Functions that a part of the runtime registers with one that stands below it.
#pragma once

#include <ka/trans.h>

namespace ka {

// From now on ka_context_push hands the thread's area of `module`, if there is one, to `function`
// before it sets the areas aside. One function; at start-up, before threads run.
void call_before_context_push(int module, ka_area_function function);

// From now on `function` is called with the number of every host that joins the network, to send it
// what the module shares. One function for each module; at start-up.
void call_for_new_host(int module, void (*function)(int host));

}  // namespace ka
