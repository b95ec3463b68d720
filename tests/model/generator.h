// Draws the next step of a sequence from weighted tables, looking at the model so that most steps hit something: open
// handles, names that exist, names that collide. What is drawn is plain data and depends on seed and model only.
#pragma once

#include <random>

#include "namespace_model.h"

namespace model {

// What a step makes most sense on.
enum class Suits { Anything, Files, Directories };

class Generator {
public:
    explicit Generator(unsigned seed) : random_(seed) {}
    Operation Next(const NamespaceModel& model);

private:
    unsigned Below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    bool Chance(unsigned percent) { return Below(100) < percent; }
    template <typename Row, size_t N>
    const Row& Pick(const Row (&rows)[N]);
    int FreeSlot(const NamespaceModel& model);
    int OpenSlot(const NamespaceModel& model, ACCESS_MASK wanted, Suits suits = Suits::Anything);
    std::string AnyCase(std::string path);
    std::string SomeName();
    std::string SomePath(const NamespaceModel& model);
    void Place(const NamespaceModel& model, Operation* operation);
    void FillOpen(const NamespaceModel& model, Operation* operation);
    void FillRename(const NamespaceModel& model, Operation* operation);

    std::mt19937 random_;
};

} // namespace model
