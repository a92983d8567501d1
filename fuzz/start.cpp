// What every target begins with: a check that fails ends the run, and only libFuzzer's texts are seen.
#include "../tests/support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    testing::GTEST_FLAG(throw_on_failure) = true;
    EXPECT_TRUE(freopen("/dev/null", "w", stdout));
    return 0;
}
