#include "tests/vel/VelTest.h"

namespace Test {

VEL_DEFINE(Test, Leaf)
VEL_DEFINE(Test, Tree)

// What a test made is gone when it ends: a cycle or a lost count shows at once.
class LiveObjects : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { before_ = liveObjects(); }
    void OnTestEnd(const testing::TestInfo&) override { EXPECT_EQ(liveObjects(), before_); }
    std::map<std::string, U32> before_;
};
const bool installed = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new LiveObjects);
    return true;
}();

}  // namespace Test
