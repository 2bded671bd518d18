// The version that the library tells is the one that the build hands to packages.
#include "corvane/version.h"

#include <gtest/gtest.h>

TEST(Version, IsTheOneOfThePackage) { EXPECT_EQ(VELVersion(), CORVANE_EXPECTED_VERSION); }
