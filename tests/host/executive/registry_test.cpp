// The registry, and that it survives.
#include "tests/host/executive/fixture.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
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

TEST_F(RegistryTest, HandlesGrantWhatTheyWereOpenedFor) {
    HANDLE root, key;
    ASSERT_EQ(Key(L"\\Registry", KEY_READ, true, &root), STATUS_SUCCESS);
    EXPECT_EQ(Set(root, L"a", REG_DWORD, &root, 4), STATUS_ACCESS_DENIED);
    ASSERT_EQ(Key(L"Sub", KEY_WRITE, true, &key, root), STATUS_SUCCESS);
    EXPECT_EQ(Set(key, L"a", REG_DWORD, &root, 4), STATUS_SUCCESS);
    EXPECT_EQ(Query(key, L"a").status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Key(L"None", KEY_READ, false, &key, root), STATUS_OBJECT_NAME_NOT_FOUND);
    ZwClose(key);
    ZwClose(root);
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

} // namespace
} // namespace host::tests
