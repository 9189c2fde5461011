#include "capabilities/disabled_capabilities.h"

#include "support/pch.h"

namespace qm {
namespace {

TEST(DisabledCapabilities, NothingIsDisabledAtFirst) {
    const DisabledCapabilities disabled;

    EXPECT_FALSE(disabled.contains("read_file"));
}

TEST(DisabledCapabilities, OneIsDisabledAndEnabledByName) {
    DisabledCapabilities disabled;

    disabled.set("read_file", false);
    disabled.set("read_file", false);
    EXPECT_TRUE(disabled.contains("read_file"));
    EXPECT_FALSE(disabled.contains("READ_FILE"));

    disabled.set("read_file", true);
    disabled.set("read_file", true);
    EXPECT_FALSE(disabled.contains("read_file"));
}

TEST(DisabledCapabilities, ReplacingTheSetEnablesWhatIsNotInTheNewOne) {
    DisabledCapabilities disabled;
    disabled.set("old", false);

    disabled.replaceAll({"new", "newer"});

    EXPECT_FALSE(disabled.contains("old"));
    EXPECT_TRUE(disabled.contains("new"));
    EXPECT_TRUE(disabled.contains("newer"));
}

}  // namespace
}  // namespace qm
