// The driver and a model carry out the same generated steps, and every answer must agree. A sequence that ends in a
// difference is made short before it is shown: runs of steps are dropped, long ones first, as long as what is left
// still ends in one.
#pragma once

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "volume.h"

namespace model {

enum class Compare { Answers, Everything };

template <typename Operation>
class Duel : public ModelVolume {
protected:
    using Sequence = std::vector<Operation>;

    // Both sides as they are before the first step.
    virtual void Begin() = 0;
    virtual void SeedGenerator(unsigned seed) = 0;
    virtual Operation Draw() = 0;
    // On both sides. What was different, in words; empty for nothing, also when the step does not apply.
    virtual std::string Step(const Operation& operation, Compare compare) = 0;
    // The step in words, as it would be carried out now; empty if it does not apply.
    virtual std::string Told(const Operation& operation) = 0;
    // On both sides; what came of it, for the report.
    virtual std::string Carried(const Operation& operation) = 0;

    // Everything is compared after so many steps only, since that costs more than the requests; a replay finds the step
    // that set the sides apart.
    void Run(unsigned length, unsigned stepsForEverything)
    {
        const unsigned seed = Seed();
        std::cout << "seed " << seed << "\n";
        for (unsigned i = 0, done = 0; done < OperationCount(); ++i, done += length) {
            const Sequence failed = Generate(seed + i, length, stepsForEverything);
            if (failed.empty()) continue;
            ADD_FAILURE() << "GVND_TEST_SEED=" << seed + i << ", " << Report(failed);
            return;
        }
    }

private:
    // Empty if both sides agreed to the end.
    Sequence Generate(unsigned seed, unsigned length, unsigned stepsForEverything)
    {
        Begin();
        SeedGenerator(seed);
        Sequence sequence;
        while (sequence.size() < length) {
            sequence.push_back(Draw());
            const bool everything = sequence.size() % stepsForEverything == 0 || sequence.size() == length;
            if (!Step(sequence.back(), everything ? Compare::Everything : Compare::Answers).empty()) return sequence;
        }
        return {};
    }

    // Cuts what comes behind the difference.
    std::string Replay(Sequence* sequence)
    {
        Begin();
        for (size_t i = 0; i < sequence->size(); ++i) {
            std::string difference = Step((*sequence)[i], Compare::Everything);
            if (difference.empty()) continue;
            sequence->resize(i + 1);
            return difference;
        }
        return "";
    }

    // True if a run of steps could be dropped somewhere.
    bool DropRuns(Sequence* steps, size_t run)
    {
        bool dropped = false;
        for (size_t at = 0; at < steps->size();) {
            Sequence fewer = *steps;
            const auto first = fewer.begin() + static_cast<std::ptrdiff_t>(at);
            fewer.erase(first, first + static_cast<std::ptrdiff_t>(std::min(run, fewer.size() - at)));
            if (Replay(&fewer).empty()) {
                at += run;
            } else {
                *steps = std::move(fewer);
                dropped = true;
            }
        }
        return dropped;
    }

    Sequence Shrunk(Sequence steps)
    {
        for (size_t run = std::max<size_t>(steps.size() / 2, 1);; run = std::max<size_t>(run / 2, 1)) {
            if (!DropRuns(&steps, run) && run == 1) return steps;
        }
    }

    std::string Report(const Sequence& failed)
    {
        Sequence sequence = Shrunk(failed);
        std::string text = std::to_string(failed.size()) + " steps, made " + std::to_string(sequence.size()) + ":\n";
        const std::string difference = Replay(&sequence);
        Begin();
        for (const Operation& operation : sequence) {
            const std::string told = Told(operation);
            if (told.empty()) continue;
            const std::string carried = Carried(operation);
            text += "  " + told + (&operation == &sequence.back() ? "" : carried) + "\n";
        }
        return text + (difference.empty() ? "but it does not always differ\n" : difference);
    }
};

} // namespace model
