// Holds a plugin to the contract of gvnd/plugin.h: as the command `gvnd check`, and from an author's own tests. The
// plugin runs in a child process, so that one that hangs, crashes or ruins its memory is a result like any other.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gvnd/plugin_entry.h>

#include "checker/verifier.h"

namespace checker {

// One rule of the contract.
struct Property {
    const char* Id;     // stable: "list.no-name-twice"
    const char* Rule;   // in one sentence
    const char* Remedy; // what to do about a breach
};
// All, in the order of reports; ends with a null Id.
extern const Property kProperties[];

enum class Verdict { Held, Broken, NotTried };

struct Result {
    const Property* Rule;
    Verdict Outcome = Verdict::NotTried;
    // Of the first breach.
    std::string Call; // the call that broke it, as in "Read #1 0 100"
    std::string Got;  // what came of it
    unsigned Times = 0;
};

struct Report {
    std::string Plugin;
    uint64_t Seed = 0;
    std::vector<Result> Results; // one for each property
    bool AllHold() const;
};

struct Options {
    bool ReadOnly = false;      // changes nothing; also with a table that has no Create
    uint64_t Seed = 1;          // of the generated sequences
    unsigned Steps = 2000;      // of each of them
    unsigned Threads = 4;       // at once
    unsigned StuckAfter = 5000; // milliseconds: a call that takes longer is stuck, and ends the check
    // What is kept by a volume is there again in another one that is made with the same arguments. It is asked for,
    // since a volume in memory that starts empty is no fault.
    bool Keeps = false;
    std::string Scenario = {}; // only those whose name begins so; empty: all
};

// The calling process must not have nthost booted, and no other threads. A volume is made by the plugin's entry; what
// is made on it is removed again. Never throws for what the plugin does; std::runtime_error if there can be no child,
// std::invalid_argument if no scenario has a name that begins as asked for.
Report Check(const GvndPlugin& plugin, const std::string& arguments, const Options& options = {});

// One line for each property, and behind a broken one the rule, the call, and what to do.
std::string AsText(const Report& report);
// Of one, as the verifier tells it.
std::string AsText(const Breach& breach);
std::string AsJson(const Report& report);
std::string AsJUnit(const Report& report);

} // namespace checker
