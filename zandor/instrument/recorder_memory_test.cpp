// The memory limits of control groups.
#include "recorder_memory.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace instrument {
namespace {

class RecorderGroupLimit : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directories(mount_); }
    void TearDown() override { std::filesystem::remove_all(root_); }
    void write(const std::filesystem::path& file, const std::string& text) const {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }
    std::uint64_t limit() const { return detail::groupMemoryLimit(root_ / "cgroup", mount_); }

    const std::filesystem::path root_ =
        std::filesystem::temp_directory_path() / ("recorder_limits_" + std::to_string(getpid()));
    const std::filesystem::path mount_ = root_ / "mount";
};

TEST_F(RecorderGroupLimit, IsNoneWithoutGroups) {
    EXPECT_EQ(limit(), ~std::uint64_t{0});
}

TEST_F(RecorderGroupLimit, IsTheLeastOnTheWayUpInTheSecondVersion) {
    write(root_ / "cgroup", "0::/outer/inner\n");
    write(mount_ / "outer/inner/memory.max", "max\n");
    EXPECT_EQ(limit(), ~std::uint64_t{0});
    write(mount_ / "outer/memory.max", "1048576\n");
    EXPECT_EQ(limit(), 1'048'576u);
    write(mount_ / "outer/inner/memory.max", "4096\n");
    EXPECT_EQ(limit(), 4096u);
}

TEST_F(RecorderGroupLimit, IsThatOfTheMemoryControllerInTheFirstVersion) {
    write(root_ / "cgroup", "5:cpu,cpuacct:/other\n4:memory:/job\n0::/\n");
    write(mount_ / "memory/other/memory.limit_in_bytes", "1\n");
    write(mount_ / "memory/memory.limit_in_bytes", "9223372036854771712\n");
    EXPECT_EQ(limit(), 9'223'372'036'854'771'712u);
    write(mount_ / "memory/job/memory.limit_in_bytes", "65536\n");
    EXPECT_EQ(limit(), 65'536u);
}

TEST_F(RecorderGroupLimit, InAContainerIsThatOfTheMount) {
    write(root_ / "cgroup", "4:memory:/docker/0123456789\n");
    write(mount_ / "memory/memory.limit_in_bytes", "2097152\n");
    EXPECT_EQ(limit(), 2'097'152u);
}

}  // namespace
}  // namespace instrument
