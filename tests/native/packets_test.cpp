// Packets between a client and its host, and the descriptors that come with them.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <vector>

#include "zandor/client/packets.hpp"

namespace {

using zandor::client::Receipt;
using zandor::client::receivePacket;
using zandor::client::sendPacket;

class Packets : public testing::Test {
  protected:
    Packets() { socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_.data()); }
    ~Packets() override {
        for (const int end : ends_)
            close(end);
    }

    /// By the other end, with as many descriptors as it likes.
    void sendWith(std::size_t count, const void* packet, std::size_t bytes) const {
        iovec part{const_cast<void*>(packet), bytes};
        std::vector<char> room(CMSG_SPACE(count * sizeof(int)));
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = room.data();
        message.msg_controllen = room.size();
        cmsghdr* const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(count * sizeof(int));
        const std::vector<int> files(count, ends_[0]);
        std::memcpy(CMSG_DATA(head), files.data(), count * sizeof(int));
        ASSERT_EQ(sendmsg(ends_[0], &message, 0), static_cast<ssize_t>(bytes));
    }

    Receipt receive(std::uint64_t& packet) {
        return receivePacket(ends_[1], &packet, sizeof packet, file_);
    }

    static std::ptrdiff_t openFiles() {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::distance(begin(files), end(files));
    }

    std::array<int, 2> ends_{};
    int file_ = -1;
    const std::uint64_t sent_ = 7;
};

TEST_F(Packets, ComeAsTheyWereSentWithTheirDescriptor) {
    ASSERT_TRUE(sendPacket(ends_[0], &sent_, sizeof sent_, ends_[0]));
    std::uint64_t packet = 0;
    EXPECT_EQ(receive(packet), Receipt::packet);
    EXPECT_EQ(packet, sent_);
    EXPECT_GE(file_, 0);
    EXPECT_EQ(close(file_), 0);
    EXPECT_EQ(receive(packet), Receipt::nothing);
    EXPECT_EQ(file_, -1);
}

TEST_F(Packets, LeaveNoDescriptorsOpenBeyondTheFirst) {
    const auto before = openFiles();
    for (const std::size_t count : {2u, 3u, 64u}) {
        sendWith(count, &sent_, sizeof sent_);
        std::uint64_t packet = 0;
        EXPECT_EQ(receive(packet), Receipt::packet);
        EXPECT_EQ(close(file_), 0);
        EXPECT_EQ(openFiles(), before) << count;
    }
}

TEST_F(Packets, OfAnotherSizeAreTheEndAndTheirDescriptorIsClosed) {
    const std::array<std::uint64_t, 2> longer{};
    const auto before = openFiles();
    for (const std::size_t bytes : {std::size_t{1}, sizeof longer}) {
        sendWith(1, &longer, bytes);
        std::uint64_t packet = 0;
        EXPECT_EQ(receive(packet), Receipt::end);
        EXPECT_EQ(file_, -1);
        EXPECT_EQ(openFiles(), before);
    }
}

TEST_F(Packets, FromAnEndThatIsClosedAreTheEnd) {
    close(ends_[0]);
    std::uint64_t packet = 0;
    EXPECT_EQ(receive(packet), Receipt::end);
    EXPECT_FALSE(sendPacket(ends_[1], &sent_, sizeof sent_, -1));
    ends_[0] = -1;
}

}  // namespace
