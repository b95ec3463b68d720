// Generated sequences on a small tree: every status, every answer and the whole stored tree must agree.

#include <optional>

#include "duel.h"
#include "generator.h"
#include "namespace_driver.h"
#include "namespace_model.h"

namespace model {
namespace {

constexpr unsigned kSequenceLength = 250;
constexpr unsigned kStepsForATree = 10;

// The link can be neither deleted nor moved, so the root is never empty.
const NamespaceModel::NodeToAdd kFirst[] = {
    {"\\a", true, "", 0},     {"\\a\\b", true, "", 0},     {"\\a\\b\\File", false, "", 100},
    {"\\b", false, "", 5000}, {"\\link", false, "\\A", 0},
};

} // namespace

class NamespaceTest : public Duel<Operation> {
protected:
    void Begin() override
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
    void SeedGenerator(unsigned seed) override { generator_.emplace(seed); }
    Operation Draw() override { return generator_->Next(model_); }

    std::string Step(const Operation& operation, Compare compare) override
    {
        if (!model_.Applies(operation)) return "";
        const Outcome driver = driver_.Apply(operation), model = model_.Apply(operation);
        std::string trees;
        if (compare == Compare::Everything || driver != model) {
            const std::string stored = StoredTree();
            if (stored != model_.Tree()) trees = "stored:\n" + stored + "model:\n" + model_.Tree();
        }
        if (driver == model && trees.empty()) return "";
        return "    driver: " + Describe(driver) + "\n    model:  " + Describe(model) + "\n" + trees;
    }
    std::string Told(const Operation& operation) override
    {
        return model_.Applies(operation) ? Describe(operation) : "";
    }
    std::string Carried(const Operation& operation) override
    {
        (void)model_.Apply(operation);
        return "  ->  " + Describe(driver_.Apply(operation));
    }

private:
    NamespaceModel model_;
    NamespaceDriver driver_;
    std::optional<Generator> generator_;
};

TEST_F(NamespaceTest, GeneratedSequencesAgree)
{
    Run(kSequenceLength, kStepsForATree);
    Begin(); // closes what is open
}

} // namespace model
