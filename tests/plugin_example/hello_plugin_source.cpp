// The example itself, as its reader finds it.
#include "../../examples/hello/hello_plugin.cpp"
