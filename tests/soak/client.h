// A program that uses volumes at random: a few files open at a time, each with a view perhaps, requests of every kind.
// It takes every status for an answer. What it insists on is what it reads: file content, extended attributes.
#pragma once

#include <memory>
#include <random>
#include <string>
#include <vector>

#include <workbench/ea.h>
#include <workbench/view.h>

#include "soak/run.h"

namespace soak {

class Client {
public:
    // links: "\??\Name" of each volume.
    Client(Run& run, unsigned number, const std::vector<std::string>& links, unsigned seed)
        : run_(run), progress_(run.ProgressOf(number)), links_(links), random_(seed)
    {}

    // Until the run ends. On a thread attached to a user process.
    void Work();

private:
    struct Open {
        workbench::Handle File;
        bool Synchronous;
        bool Directory;
        std::unique_ptr<workbench::View> View;
    };

    unsigned Draw(unsigned below) { return static_cast<unsigned>(random_() % below); }
    bool Chance(unsigned in) { return Draw(in) == 0; }
    uint64_t Place() { return Chance(4) ? Draw(200'000) : Draw(9'000); }
    ULONG Length() { return Chance(8) ? Draw(150'000) : Draw(6'000); }
    std::string Name();
    std::string Path();
    Open* Any();
    void CloseAll();

    // The steps; each says its name first.
    void OpenOne();
    void OpenVolume();
    void CloseOne();
    void Read();
    void Write();
    void Resize();
    void Rename();
    void Dispose();
    void List();
    void Locks();
    void Ask();
    void SetTimes();
    void Eas();
    void Flush();
    void Map();
    void TouchView();
    void Volume();
    void CheckBytes(uint64_t offset, const std::string& bytes, size_t length, const char* whence);

    using Step = void (Client::*)();
    struct Row {
        const char* Name;
        unsigned Weight;
        Step What;
    };
    static const Row kRows[];

    Run& run_;
    Progress& progress_;
    const std::vector<std::string>& links_;
    std::mt19937 random_;
    std::vector<Open> open_;
};

} // namespace soak
