// The plugin handle of an object against those who use it without a lock. Whoever replaces or closes the handle holds
// the object's lock exclusively, which keeps out every call but one: a paging request that is nested in other work
// takes no lock, since that work may hold any. Such calls are counted. A switch lets no new one in, waits for those
// that are inside, and only then may the plugin see the handle closed; a call that comes meanwhile waits for the switch
// to end.
//
// Nobody waits in a circle: during a switch its thread calls the plugin and takes no lock, and a counted call is inside
// the plugin, with a buffer that is locked in memory.
#pragma once

#include "frame/records.h"

// One call through the gate of an object, or past it if the gate is null.
class GvGatePass {
public:
    GvGatePass(const IrpContext* context, const Fcb* gate);
    ~GvGatePass();
    GvGatePass(const GvGatePass&) = delete;
    GvGatePass& operator=(const GvGatePass&) = delete;

    // The object has a handle that the plugin may see. Holds while this lives.
    bool IsOpen() const { return isOpen_; }

private:
    Fcb* counted_; // or null
    bool isOpen_;
};

// No nested call uses the object's handle while this lives. The object's lock is held, exclusive.
class GvHandleSwitch {
public:
    explicit GvHandleSwitch(Fcb* fcb);
    ~GvHandleSwitch();
    GvHandleSwitch(const GvHandleSwitch&) = delete;
    GvHandleSwitch& operator=(const GvHandleSwitch&) = delete;

private:
    Fcb* fcb_;
};

void GvInitHandleSwitch(Fcb* fcb);
