#include "zandor/runtime/console.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "zandor/runtime/testing/live_arrays.hpp"

namespace {

/// What the sink below was handed.
std::vector<std::string>& handed() {
    static std::vector<std::string> texts;
    return texts;
}

int keep(const char* text, std::size_t length) noexcept {
    handed().emplace_back(text, length);
    return static_cast<int>(length);
}

int refuse(const char*, std::size_t) noexcept {
    return -1;
}

/// Puts a sink in place while it lives.
class Sink {
  public:
    explicit Sink(zandor::ConsoleSink sink) : previous_(zandor::setConsoleSink(sink)) {
        handed().clear();
    }
    ~Sink() { zandor::setConsoleSink(previous_); }

  private:
    zandor::ConsoleSink previous_;
};

TEST(Console, HandsTheFormattedTextToTheSink) {
    const Sink sink(keep);
    EXPECT_EQ(utPrintf("%s has %d%%\n", "solve", 42), 14);
    EXPECT_EQ(handed(), std::vector<std::string>{"solve has 42%\n"});
}

TEST(Console, HandsTextOfAnyLengthOverWhole) {
    const Sink sink(keep);
    for (const std::size_t length : {0u, 1022u, 1023u, 1024u, 100'000u}) {
        const std::string text(length, 'x');
        EXPECT_EQ(utPrintf("%s", text.c_str()), static_cast<int>(length));
        EXPECT_EQ(handed().back(), text);
    }
}

TEST(Console, SaysWhenTheSinkFailed) {
    const Sink sink(refuse);
    EXPECT_LT(utPrintf("lost"), 0);
}

TEST(Console, GivesTheFirstSinkBackForNone) {
    const Sink sink(keep);
    EXPECT_EQ(zandor::setConsoleSink(nullptr), keep);
    const zandor::ConsoleSink first = zandor::setConsoleSink(keep);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(first, keep);
}

/// Has standard output go into a pipe while it lives.
class Redirected {
  public:
    Redirected() : saved_(dup(STDOUT_FILENO)) {
        if (pipe(ends_) != 0 || dup2(ends_[1], STDOUT_FILENO) < 0)
            std::abort();
    }
    ~Redirected() {
        restore();
        close(ends_[0]);
    }
    void restore() {
        if (saved_ < 0)
            return;
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        close(ends_[1]);
        saved_ = -1;
    }
    std::string readAll() {
        std::string all;
        char part[4096];
        for (ssize_t got; (got = read(ends_[0], part, sizeof part)) > 0;)
            all.append(part, got);
        return all;
    }

  private:
    int saved_;
    int ends_[2];
};

TEST(Console, WritesEachTextWholeToStandardOutput) {
    // Texts beyond what a pipe takes at once, from threads side by side.
    constexpr int threadCount = 3;
    constexpr int textCount = 5;
    constexpr std::size_t length = 150'000;
    Redirected output;
    std::string all;
    std::thread reader([&] { all = output.readAll(); });
    std::vector<std::thread> writers;
    for (int t = 0; t < threadCount; ++t) {
        writers.emplace_back([t] {
            const std::string text(length, static_cast<char>('a' + t));
            for (int i = 0; i < textCount; ++i)
                utPrintf("%s\n", text.c_str());
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    output.restore();
    reader.join();
    ASSERT_EQ(all.size(), threadCount * textCount * (length + 1));
    for (std::size_t line = 0; line < all.size(); line += length + 1) {
        EXPECT_EQ(all.find_first_not_of(all[line], line), line + length);
        EXPECT_EQ(all[line + length], '\n');
    }
}

TEST(Console, SaysWhenStandardOutputIsClosed) {
    const pid_t child = fork();
    if (child == 0) {
        close(STDOUT_FILENO);
        _exit(utPrintf("lost") < 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
