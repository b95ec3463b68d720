// A plugin that is wrong on purpose: memfs with one mistake, by the mistake's name.
#pragma once

#include <gvnd/plugin_entry.h>

namespace mistakes {

struct Mistake {
    const char* Name;
    const char* Property; // that the checker must name; one of several with '|' between; "" for what is allowed
    void (*Make)();       // in the table of the plugin that is being made
};
// Ends with a null name.
extern const Mistake kMistakes[];

// Its argument is the name of a mistake.
extern const GvndPlugin kPlugin;

} // namespace mistakes
