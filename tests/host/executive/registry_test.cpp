// The registry, and that it survives.
#include "host/executive/registry_file.h"
#include "tests/host/executive/fixture.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace host::tests {
namespace {

class RegistryTest : public testing::Test {
  protected:
    RegistryTest() : file_(std::filesystem::temp_directory_path() / ("registry_test." + std::to_string(getpid()))) {
        std::filesystem::remove(file_);
        Boot();
    }
    ~RegistryTest() override {
        runtime_.reset();
        std::filesystem::remove(file_);
    }
    void Boot() {
        runtime_.reset();
        runtime_ = std::make_unique<Runtime>(RuntimeOptions{.registryFile = file_});
    }

    static NTSTATUS Key(const WCHAR *name, ACCESS_MASK access, bool create, HANDLE *handle, HANDLE root = nullptr) {
        UNICODE_STRING text;
        RtlInitUnicodeString(&text, name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
        return create ? ZwCreateKey(handle, access, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr)
                      : ZwOpenKey(handle, access, &attributes);
    }
    static NTSTATUS Set(HANDLE key, const WCHAR *name, ULONG type, const void *data, ULONG size) {
        UNICODE_STRING text;
        RtlInitUnicodeString(&text, name);
        return ZwSetValueKey(key, &text, 0, type, const_cast<void *>(data), size);
    }
    struct Answer {
        NTSTATUS status;
        ULONG length;
        alignas(8) unsigned char bytes[64];
    };
    static Answer Query(HANDLE key, const WCHAR *name, ULONG length = 64) {
        UNICODE_STRING text;
        RtlInitUnicodeString(&text, name);
        Answer answer{};
        std::memset(answer.bytes, 0xEE, sizeof answer.bytes);
        answer.status = ZwQueryValueKey(key, &text, KeyValuePartialInformation, answer.bytes, length, &answer.length);
        return answer;
    }

    const std::filesystem::path file_;
    std::unique_ptr<Runtime> runtime_;
};

TEST_F(RegistryTest, BuffersFollowTheRulesOfPartialInformation) {
    HANDLE key;
    ASSERT_EQ(Key(L"\\Registry\\Test", KEY_ALL_ACCESS, true, &key), STATUS_OBJECT_NAME_NOT_FOUND);
    HANDLE root;
    ASSERT_EQ(Key(L"\\Registry", KEY_ALL_ACCESS, true, &root), STATUS_SUCCESS);
    ASSERT_EQ(Key(L"Test", KEY_ALL_ACCESS, true, &key, root), STATUS_SUCCESS);
    ZwClose(root);
    constexpr ULONG kHead = 12;
    const ULONG number = 0x12345678;
    ASSERT_EQ(Set(key, L"Number", REG_DWORD, &number, sizeof number), STATUS_SUCCESS);
    EXPECT_EQ(Query(key, L"Other").status, STATUS_OBJECT_NAME_NOT_FOUND);

    const Answer tooSmall = Query(key, L"NUMBER", kHead - 1);
    EXPECT_EQ(tooSmall.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(tooSmall.length, kHead + 4);
    EXPECT_EQ(tooSmall.bytes[0], 0xEE);

    const Answer partial = Query(key, L"Number", kHead + 2);
    EXPECT_EQ(partial.status, STATUS_BUFFER_OVERFLOW);
    const auto &information = *reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION *>(partial.bytes);
    EXPECT_EQ(information.Type, static_cast<ULONG>(REG_DWORD));
    EXPECT_EQ(information.DataLength, 4u);
    EXPECT_EQ(information.Data[1], 0x56);
    EXPECT_EQ(information.Data[2], 0xEE);

    EXPECT_EQ(Query(key, L"Number", kHead + 4).status, STATUS_SUCCESS);
    ZwClose(key);
}

TEST_F(RegistryTest, EverythingSurvivesARestart) {
    const WCHAR text[] = L"caf\u00e9";
    const unsigned char odd[] = {1, 2, 3};
    const ULONGLONG big = 0xFEDC'BA98'7654'3210;
    const ULONG number = 7;
    HANDLE root, key;
    ASSERT_EQ(Key(L"\\Registry", KEY_ALL_ACCESS, true, &root), STATUS_SUCCESS);
    ASSERT_EQ(Key(L"Settings", KEY_ALL_ACCESS, true, &key, root), STATUS_SUCCESS);
    Set(key, L"Text", REG_SZ, text, sizeof text);
    Set(key, L"Unterminated", REG_SZ, text, sizeof text - 2);
    Set(key, L"Odd", REG_SZ, odd, sizeof odd);
    Set(key, L"Bytes", REG_BINARY, odd, sizeof odd);
    Set(key, L"Number", REG_DWORD, &number, sizeof number);
    Set(key, L"Big", REG_QWORD, &big, sizeof big);
    Set(key, L"Strange", 77, odd, sizeof odd);
    Set(key, L"Gone", REG_DWORD, &number, sizeof number);
    UNICODE_STRING gone;
    RtlInitUnicodeString(&gone, L"Gone");
    EXPECT_EQ(ZwDeleteValueKey(key, &gone), STATUS_SUCCESS);
    ZwClose(key);
    ZwClose(root);
    Boot();
    ASSERT_EQ(Key(L"\\registry\\settings", KEY_READ, false, &key), STATUS_SUCCESS);
    struct Row {
        const WCHAR *name;
        ULONG type, size;
        const void *data;
    };
    for (const Row &row : {Row{L"Text", REG_SZ, sizeof text, text}, Row{L"Unterminated", REG_SZ, sizeof text - 2, text},
                           Row{L"Odd", REG_SZ, sizeof odd, odd}, Row{L"Bytes", REG_BINARY, sizeof odd, odd},
                           Row{L"Number", REG_DWORD, 4, &number}, Row{L"Big", REG_QWORD, 8, &big},
                           Row{L"Strange", 77, sizeof odd, odd}}) {
        const Answer answer = Query(key, row.name);
        ASSERT_EQ(answer.status, STATUS_SUCCESS);
        const auto &information = *reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION *>(answer.bytes);
        EXPECT_EQ(information.Type, row.type);
        ASSERT_EQ(information.DataLength, row.size);
        EXPECT_EQ(std::memcmp(information.Data, row.data, row.size), 0);
    }
    EXPECT_EQ(Query(key, L"Gone").status, STATUS_OBJECT_NAME_NOT_FOUND);
    ZwClose(key);
    EXPECT_FALSE(std::filesystem::exists(file_.string() + ".new"));
}

TEST_F(RegistryTest, DamagedFileIsNotOverwritten) {
    runtime_.reset();
    const std::string damaged = R"({ "\\Registry": { "a": )";
    std::ofstream(file_) << damaged;
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Boot(), "violation: registry file");
    EXPECT_EQ(std::filesystem::file_size(file_), damaged.size());
}

// Two machines that share a file, as two programs do: neither undoes what the other has done since it read the file.
TEST_F(RegistryTest, ProgramsThatShareAFileKeepEachOthersChanges) {
    runtime_.reset();
    const auto open = [](Registry &registry, std::u16string_view path) {
        registry.CreatePath(path);
        std::shared_ptr<RegistryKey> key;
        bool created;
        EXPECT_EQ(registry.Create(nullptr, path, 0, MakeKeys::None, key, created), STATUS_SUCCESS);
        return key;
    };
    const auto set = [](Registry &registry, RegistryKey &key, std::u16string_view name, ULONG value) {
        EXPECT_EQ(registry.SetValue(key, name, REG_DWORD, &value, sizeof value), STATUS_SUCCESS);
    };
    Registry first(file_);
    for (const char16_t *name : {u"kept", u"both", u"deleted"})
        set(first, *open(first, u"\\camera"), name, 1);
    Registry second(file_);
    set(first, *open(first, u"\\camera"), u"BOTH", 2);
    set(second, *open(second, u"\\camera"), u"both", 1); // is so already: no change
    set(second, *open(second, u"\\other"), u"new", 3);
    EXPECT_EQ(first.DeleteValue(*open(first, u"\\camera"), u"deleted"), STATUS_SUCCESS);
    set(second, *open(second, u"\\camera"), u"late", 4);

    Registry after(file_);
    const auto camera = open(after, u"\\camera");
    for (const auto &[name, expected] : {std::pair{u"kept", 1}, {u"both", 2}, {u"deleted", -1}, {u"late", 4}}) {
        RegistryValue value;
        EXPECT_EQ(after.FindValue(*camera, name, value) ? int{value.data.at(0)} : -1, expected);
    }
    RegistryValue value;
    EXPECT_TRUE(after.FindValue(*open(after, u"\\other"), u"new", value));
}

// Several processes save two values again and again, equal numbers in both, the first one first.
class SavingTest : public testing::Test {
  protected:
    SavingTest() {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directory(folder_);
    }
    ~SavingTest() override { std::filesystem::remove_all(folder_); }

    struct Writer {
        pid_t process = 0;
        int reports = -1; // one byte for every number that is saved
    };
    Writer StartWriter(const char16_t *key, ULONG count) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        Writer writer{.process = fork(), .reports = ends[0]};
        if (writer.process != 0) {
            close(ends[1]);
            return writer;
        }
        {
            Registry registry(file_);
            std::shared_ptr<RegistryKey> at;
            bool created;
            registry.Create(nullptr, key, 0, MakeKeys::All, at, created);
            ULONG first = 0;
            if (RegistryValue value; registry.FindValue(*at, u"First", value))
                std::memcpy(&first, value.data.data(), sizeof first);
            for (ULONG number = first + 1; number <= first + count; ++number) {
                registry.SetValue(*at, u"First", REG_DWORD, &number, sizeof number);
                registry.SetValue(*at, u"Second", REG_DWORD, &number, sizeof number);
                if (write(ends[1], "", 1) != 1)
                    break;
            }
        }
        _exit(0);
    }
    static unsigned Reports(const Writer &writer, unsigned count) {
        char bytes[64];
        ssize_t got = read(writer.reports, bytes, std::min<std::size_t>(count, sizeof bytes));
        return got > 0 ? static_cast<unsigned>(got) : 0;
    }
    static void End(const Writer &writer, int signal) {
        if (signal != 0)
            kill(writer.process, signal);
        int status;
        EXPECT_EQ(waitpid(writer.process, &status, 0), writer.process);
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, signal);
        close(writer.reports);
    }

    // The file as it is now; false when it cannot be understood.
    bool Read(const char16_t *key, ULONG &first, ULONG &second) const {
        RegistryKey root;
        std::string reason;
        EXPECT_TRUE(ReadRegistryFile(file_, root, reason)) << reason;
        first = second = 0;
        const auto machine = root.keys.find(u"REGISTRY");
        if (machine == root.keys.end())
            return reason.empty();
        const auto found = machine->second->keys.find(key);
        if (found == machine->second->keys.end())
            return reason.empty();
        for (const RegistryValue &value : found->second->values)
            std::memcpy(value.name == u"First" ? &first : &second, value.data.data(), sizeof first);
        return reason.empty();
    }

    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("saving_test." + std::to_string(getpid()));
    const std::filesystem::path file_ = folder_ / "registry";
};

TEST_F(SavingTest, KilledProcessLosesNothingOfTheOlderState) {
    std::minstd_rand random(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()));
    ULONG last = 0;
    for (int i = 0; i < 25; ++i) {
        const Writer writer = StartWriter(u"\\Registry\\A", 1'000'000);
        unsigned reported = 0;
        while (reported < 1 + random() % 4)
            reported += Reports(writer, 1);
        for (volatile unsigned spin = random() % 200'000; spin != 0;)
            spin = spin - 1;
        End(writer, SIGKILL);
        ULONG first, second;
        ASSERT_TRUE(Read(u"A", first, second));
        EXPECT_TRUE(first == second || first == second + 1) << first << ", " << second;
        EXPECT_GE(second, last + reported);
        last = first;
    }
}

TEST_F(SavingTest, TwoProcessesNeverLeaveHalfAFile) {
    constexpr ULONG kCount = 30;
    const Writer writers[] = {StartWriter(u"\\Registry\\A", kCount), StartWriter(u"\\Registry\\B", kCount)};
    for (const Writer &writer : writers) {
        while (Reports(writer, 1) != 0) {
            ULONG first, second;
            ASSERT_TRUE(Read(u"A", first, second));
            EXPECT_TRUE(first == second || first == second + 1) << first << ", " << second;
        }
    }
    for (const Writer &writer : writers)
        End(writer, 0);
    ULONG a, b, same;
    ASSERT_TRUE(Read(u"A", a, same) && Read(u"B", b, same));
    EXPECT_EQ(a, kCount);
    EXPECT_EQ(b, kCount) << "what one saves does not undo what the other has saved";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_), {}), 1) << "something is left over";
}

} // namespace
} // namespace host::tests
