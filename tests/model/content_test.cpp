// Generated reads, writes, cuts, flushes and touches of views on one file, held against a plain array of bytes. A
// sequence that ends in a difference is made short before it is shown.

#include <chrono>
#include <iostream>

#include "content_driver.h"
#include "content_model.h"
#include "shrink.h"
#include "volume.h"

namespace model {
namespace {

constexpr unsigned kSequenceLength = 400;
constexpr unsigned kStepsForAll = 40;

using ContentSequence = std::vector<ContentOperation>;

std::string FirstDifference(const std::string& driver, const std::string& model)
{
    size_t at = 0;
    while (at < driver.size() && at < model.size() && driver[at] == model[at]) ++at;
    if (at == driver.size() && at == model.size()) return "";
    return "    bytes differ from " + std::to_string(at) + " on (" + std::to_string(driver.size()) + " and " +
           std::to_string(model.size()) + ")\n";
}

} // namespace

class ContentTest : public ModelVolume {
protected:
    void Begin()
    {
        driver_.Close();
        driver_.Open();
        model_ = ContentModel();
    }
    // A worker may still be closing the asynchronous handle; the unmount waits for it, and would for anything left.
    void End() { driver_.Close(); }

    enum class CompareAll { Now, Later };

    // What was different, in words; empty for nothing.
    std::string Step(const ContentOperation& drawn, CompareAll all)
    {
        const auto operation = model_.Admit(drawn);
        if (!operation) return "";
        const ContentOutcome driver = driver_.Apply(*operation);
        const ContentOutcome model = model_.Apply(*operation);
        if (driver != model) {
            return "    driver: " + Describe(driver) + "\n    model:  " + Describe(model) + "\n" +
                   FirstDifference(driver.Bytes, model.Bytes);
        }
        if (all == CompareAll::Later) return "";
        const std::string difference = FirstDifference(driver_.Contents().Bytes, model_.Bytes());
        return difference.empty() ? "" : "    of the file's content afterwards:\n" + difference;
    }

    std::string Replay(ContentSequence* sequence)
    {
        Begin();
        for (size_t i = 0; i < sequence->size(); ++i) {
            std::string difference = Step((*sequence)[i], CompareAll::Now);
            if (difference.empty()) continue;
            sequence->resize(i + 1);
            return difference;
        }
        return "";
    }

    // Empty if both sides agreed to the end.
    ContentSequence Generate(unsigned seed)
    {
        Begin();
        std::mt19937 random(seed);
        ContentSequence sequence;
        while (sequence.size() < kSequenceLength) {
            sequence.push_back(DrawContent(&random));
            const bool compare = sequence.size() % kStepsForAll == 0;
            if (!Step(sequence.back(), compare ? CompareAll::Now : CompareAll::Later).empty()) return sequence;
        }
        return {};
    }

    std::string Report(ContentSequence sequence)
    {
        const size_t length = sequence.size();
        sequence = Shrink(std::move(sequence), [&](ContentSequence* fewer) { return !Replay(fewer).empty(); });
        const std::string difference = Replay(&sequence);
        std::string text = std::to_string(length) + " steps, made " + std::to_string(sequence.size()) + ":\n";
        Begin();
        for (const ContentOperation& drawn : sequence) {
            const auto operation = model_.Admit(drawn);
            if (!operation) continue;
            text += "  " + Describe(*operation) + "\n";
            (void)model_.Apply(*operation);
            (void)driver_.Apply(*operation);
        }
        return text + (difference.empty() ? "but it does not always differ\n" : difference);
    }

private:
    ContentModel model_;
    ContentDriver driver_;
};

TEST_F(ContentTest, GeneratedSequencesAgree)
{
    const unsigned seed = Seed();
    std::cout << "seed " << seed << "\n";
    const auto begin = std::chrono::steady_clock::now();
    unsigned done = 0;
    for (unsigned i = 0; done < OperationCount(); ++i, done += kSequenceLength) {
        const ContentSequence failed = Generate(seed + i);
        if (!failed.empty()) {
            ADD_FAILURE() << "GVND_TEST_SEED=" << seed + i << ", " << Report(failed);
            break;
        }
    }
    End();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    std::cout << done << " operations, " << static_cast<unsigned>(done / seconds.count()) << " in a second\n";
}

} // namespace model
