// When what is lost of a stream is told.
#include "losses.h"

#include <gtest/gtest.h>

namespace {

TEST(Losses, areToldWhenTheyBeginAndThenEverMoreRarely)
{
    tools::LossNotes notes;
    tools::Losses losses;
    const auto begin = tools::LossNotes::Clock::now();
    std::vector<int> told;
    uint64_t sum = 0;
    for (int second = 0; second < 600; ++second) {
        if (second < 200 || second == 400) {
            lose_frames(losses, tools::Loss::no_key, 2, 100);
            lose_frames(losses, tools::Loss::not_written, 1, 100);
        }
        for (const auto& [loss, lost] :
             take_due(notes, losses, begin + std::chrono::seconds(second), false)) {
            EXPECT_EQ(loss, tools::Loss::no_key);
            told.push_back(second);
            sum += lost.frames;
        }
    }
    EXPECT_EQ(told, (std::vector<int>{0, 10, 30, 70, 130, 190, 250, 400}));
    EXPECT_EQ(sum, 402u);
    lose_frames(losses, tools::Loss::garbage, 0, 31);
    lose_frames(losses, tools::Loss::no_key, 1, 31);
    EXPECT_EQ(take_due(notes, losses, begin, true).size(), 2u);
}

} // namespace
