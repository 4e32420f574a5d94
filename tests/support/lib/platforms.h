#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "storage/profile.h"
#include "temp_home.h"

namespace qev::test {

// Suites that must hold under both platform profiles:
//   INSTANTIATE_TEST_SUITE_P(Platforms, Suite, kBothPlatforms, platformName);
inline const auto kBothPlatforms =
    ::testing::Values(storage::Platform::Linux, storage::Platform::MacOS);

inline std::string platformName(const ::testing::TestParamInfo<storage::Platform>& info) {
  return info.param == storage::Platform::MacOS ? "macOS" : "Linux";
}

// The profile of `platform` for a home in `root`.
inline storage::Profile profileIn(storage::Platform platform, const std::filesystem::path& root) {
  const auto environment = environmentIn(root);
  return platform == storage::Platform::MacOS ? storage::Profile::forMacOS(environment)
                                              : storage::Profile::forLinux(environment);
}

}  // namespace qev::test
