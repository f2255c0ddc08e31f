// Runs the program itself, in a folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <utility>
#include <vector>

extern char **environ;

namespace uvcam_test {

struct Outcome {
    int code = -1; // exit code, or minus the signal that ended it
    std::string out;
    std::string err;
};

inline std::string ReadFile(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteFile(const std::filesystem::path &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Words are separated by single blanks.
inline std::vector<std::string> Words(const std::string &line) {
    std::vector<std::string> words;
    for (std::size_t begin = 0, end; begin < line.size(); begin = end + 1) {
        end = std::min(line.find(' ', begin), line.size());
        words.push_back(line.substr(begin, end - begin));
    }
    return words;
}

class UvcamTest : public testing::Test {
  protected:
    UvcamTest() {
        std::string name = testing::TempDir() + "uvcam-XXXXXX";
        folder_ = mkdtemp(name.data());
        SetEnvironment({"XDG_STATE_HOME=" + PathOf("state")});
    }
    ~UvcamTest() override { std::filesystem::remove_all(folder_); }

    std::string PathOf(const std::string &name) const { return folder_ / name; }

    // A word that begins with @ is a file in the test's folder.
    Outcome Run(const std::string &line, const std::string &input = "") { return Wait(Start(line, input)); }

    struct Process {
        pid_t id;
        std::string out, err; // names of files
    };
    Process Start(const std::string &line, const std::string &input = "") {
        const std::string number = std::to_string(++started_);
        const Process process{0, "stdout" + number, "stderr" + number};
        WriteFile(PathOf("stdin"), input);
        std::vector<std::string> words = Words(line);
        words.insert(words.begin(), UVC_UVCAM);
        for (std::string &word : words) {
            if (word.starts_with('@'))
                word = PathOf(word.substr(1));
        }
        std::vector<std::string> variables = environment_;
        for (char **variable = environ; *variable != nullptr; ++variable) {
            const std::string_view text(*variable);
            if (!text.starts_with("HOME=") && !text.starts_with("XDG_STATE_HOME="))
                variables.emplace_back(text);
        }

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        constexpr int kCreate = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&actions, 0, PathOf("stdin").c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, PathOf(process.out).c_str(), kCreate, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, PathOf(process.err).c_str(), kCreate, 0600);
        pid_t child = 0;
        const int error =
            posix_spawn(&child, UVC_UVCAM, &actions, nullptr, Pointers(words).data(), Pointers(variables).data());
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(error, 0);
        return {child, process.out, process.err};
    }
    Outcome Wait(const Process &process) {
        int status = 0;
        while (waitpid(process.id, &status, 0) < 0 && errno == EINTR) {
        }
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), ReadFile(PathOf(process.out)),
                ReadFile(PathOf(process.err))};
    }

    // Settings must never reach the tester's own file.
    void SetEnvironment(std::vector<std::string> variables) { environment_ = std::move(variables); }

  private:
    static std::vector<char *> Pointers(std::vector<std::string> &texts) {
        std::vector<char *> pointers;
        for (std::string &text : texts)
            pointers.push_back(text.data());
        pointers.push_back(nullptr);
        return pointers;
    }

    std::filesystem::path folder_;
    std::vector<std::string> environment_;
    unsigned started_ = 0;
};

} // namespace uvcam_test
