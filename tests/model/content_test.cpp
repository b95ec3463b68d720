// Generated reads, writes, cuts, flushes and touches of views on one file, held against a plain array of bytes.

#include "content_driver.h"
#include "content_model.h"
#include "duel.h"

namespace model {
namespace {

constexpr unsigned kSequenceLength = 400;
constexpr unsigned kStepsForAll = 40;

std::string FirstDifference(const std::string& driver, const std::string& model)
{
    size_t at = 0;
    while (at < driver.size() && at < model.size() && driver[at] == model[at]) ++at;
    if (at == driver.size() && at == model.size()) return "";
    return "    bytes differ from " + std::to_string(at) + " on (" + std::to_string(driver.size()) + " and " +
           std::to_string(model.size()) + ")\n";
}

} // namespace

class ContentTest : public Duel<ContentOperation> {
protected:
    void Begin() override
    {
        driver_.Close();
        driver_.Open();
        model_ = ContentModel();
    }
    // A worker may still be closing the asynchronous handle; the unmount waits for it, and would for anything left.
    void End() { driver_.Close(); }

    void SeedGenerator(unsigned seed) override { random_.seed(seed); }
    ContentOperation Draw() override { return DrawContent(&random_); }

    std::string Step(const ContentOperation& drawn, Compare compare) override
    {
        const auto operation = model_.Admit(drawn);
        if (!operation) return "";
        const ContentOutcome driver = driver_.Apply(*operation);
        const ContentOutcome model = model_.Apply(*operation);
        if (driver != model) {
            return "    driver: " + Describe(driver) + "\n    model:  " + Describe(model) + "\n" +
                   FirstDifference(driver.Bytes, model.Bytes);
        }
        if (compare == Compare::Answers) return "";
        const std::string difference = FirstDifference(driver_.Contents().Bytes, model_.Bytes());
        return difference.empty() ? "" : "    of the file's content afterwards:\n" + difference;
    }
    std::string Told(const ContentOperation& drawn) override
    {
        const auto operation = model_.Admit(drawn);
        return operation ? Describe(*operation) : "";
    }
    std::string Carried(const ContentOperation& drawn) override
    {
        const auto operation = model_.Admit(drawn);
        (void)model_.Apply(*operation);
        return "  ->  " + Describe(driver_.Apply(*operation));
    }

private:
    ContentModel model_;
    ContentDriver driver_;
    std::mt19937 random_;
};

TEST_F(ContentTest, GeneratedSequencesAgree)
{
    Run(kSequenceLength, kStepsForAll);
    End();
}

} // namespace model
