// Generated sequences on a small tree, carried out by the driver and by the model: every status, every answer and the
// whole stored tree must agree. A sequence that ends in a difference is made short before it is shown.

#include <iostream>
#include <optional>

#include "generator.h"
#include "namespace_driver.h"
#include "namespace_model.h"
#include "shrink.h"
#include "volume.h"

namespace model {
namespace {

constexpr unsigned kSequenceLength = 250;
constexpr unsigned kStepsForATree = 10;

// The link can be neither deleted nor moved, so the root is never empty.
const NamespaceModel::NodeToAdd kFirst[] = {
    {"\\a", true, "", 0},     {"\\a\\b", true, "", 0},     {"\\a\\b\\File", false, "", 100},
    {"\\b", false, "", 5000}, {"\\link", false, "\\A", 0},
};

struct Difference {
    Outcome Driver;
    Outcome Model;
    std::string Trees; // when those differ
};

} // namespace

class NamespaceTest : public ModelVolume {
protected:
    void Begin()
    {
        driver_.CloseAll();
        EXPECT_EQ(ControlBlocks(), 0u) << "stayed behind after the last close";
        Wipe();
        model_ = NamespaceModel();
        for (const NamespaceModel::NodeToAdd& object : kFirst) {
            MakeStored(object.Path, object.IsDirectory, object.Target, object.Size);
            model_.AddNode(object);
        }
    }

    enum class CompareTrees { Now, Later };

    std::optional<Difference> Step(const Operation& operation, CompareTrees trees)
    {
        if (!model_.Applies(operation)) return std::nullopt;
        Difference difference{driver_.Apply(operation), model_.Apply(operation), {}};
        if (trees == CompareTrees::Later && difference.Driver == difference.Model) return std::nullopt;
        const std::string stored = StoredTree();
        if (stored != model_.Tree()) difference.Trees = "stored:\n" + stored + "model:\n" + model_.Tree();
        if (difference.Driver == difference.Model && difference.Trees.empty()) return std::nullopt;
        return difference;
    }

    // Cuts what comes behind the difference.
    std::optional<Difference> Replay(Sequence* sequence)
    {
        Begin();
        for (size_t i = 0; i < sequence->size(); ++i) {
            if (auto difference = Step((*sequence)[i], CompareTrees::Now)) {
                sequence->resize(i + 1);
                return difference;
            }
        }
        return std::nullopt;
    }

    // Empty if both sides agreed to the end.
    Sequence Generate(unsigned seed, unsigned length)
    {
        Begin();
        Generator generator(seed);
        Sequence sequence;
        while (sequence.size() < length) {
            sequence.push_back(generator.Next(model_));
            // The trees cost more than the requests; a replay finds the step that set them apart.
            const bool compare = sequence.size() % kStepsForATree == 0 || sequence.size() == length;
            if (Step(sequence.back(), compare ? CompareTrees::Now : CompareTrees::Later)) return sequence;
        }
        return {};
    }

    std::string Report(Sequence sequence)
    {
        const size_t length = sequence.size();
        sequence = Shrink(std::move(sequence), [&](Sequence* fewer) { return Replay(fewer).has_value(); });
        std::string text = std::to_string(length) + " steps, made " + std::to_string(sequence.size()) + ":\n";
        const auto difference = Replay(&sequence);
        Begin();
        for (size_t i = 0; i + 1 < sequence.size(); ++i) {
            if (!model_.Applies(sequence[i])) continue;
            (void)model_.Apply(sequence[i]);
            text += "  " + Describe(sequence[i]) + "  ->  " + Describe(driver_.Apply(sequence[i])) + "\n";
        }
        text += "  " + Describe(sequence.back()) + "\n";
        if (!difference) return text + "but it does not always differ\n";
        return text + "    driver: " + Describe(difference->Driver) + "\n    model:  " + Describe(difference->Model) +
               "\n" + difference->Trees;
    }

private:
    NamespaceModel model_;
    NamespaceDriver driver_;
};

TEST_F(NamespaceTest, GeneratedSequencesAgree)
{
    const unsigned seed = Seed();
    std::cout << "seed " << seed << "\n";
    unsigned done = 0;
    for (unsigned i = 0; done < OperationCount(); ++i, done += kSequenceLength) {
        const Sequence failed = Generate(seed + i, kSequenceLength);
        if (!failed.empty()) {
            ADD_FAILURE() << "GVND_TEST_SEED=" << seed + i << ", " << Report(failed);
            break;
        }
    }
    Begin(); // closes what is open
}

} // namespace model
