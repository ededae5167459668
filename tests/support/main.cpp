#include <gtest/gtest.h>

#include "support/sandbox.h"

// What enterSandbox throws ends the program with its message.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests)) tolvane::test::enterSandbox();
    return RUN_ALL_TESTS();
}
