// The service of the example, under a name of its own.
#define DriverEntry HelloDriverEntry
#include "../../plugins/entry/plugin_driver.cpp"
