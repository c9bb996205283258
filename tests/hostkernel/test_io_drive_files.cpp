// Files on drives: ZwCreateFile / ZwWriteFile / ZwClose on "\??\C:\..." paths
// mapped to a host directory.
#include <ntddk.h>
#include <hostkernel.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

using hktest::ExpectVerifierFinding;

class DriveFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/hk-drive-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir_ = pattern;
        char saved[4096];
        saved_ = HkGetDriveDirectory('C', saved, sizeof saved) != 0 ? saved : "";
        ASSERT_EQ(STATUS_SUCCESS, HkSetDriveDirectory('c', dir_.c_str()));
    }
    void TearDown() override
    {
        EXPECT_EQ(0u, HkOpenDriveFileCount());
        HkSetDriveDirectory('C', saved_.empty() ? nullptr : saved_.c_str());
        std::string command = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(0, system(command.c_str()));
    }

    // ZwCreateFile on `path` (narrow, widened); the handle in *handle, Information in *information.
    NTSTATUS Create(const char *path, ULONG disposition, HANDLE *handle, ACCESS_MASK access = FILE_WRITE_DATA | SYNCHRONIZE,
                    ULONG share = FILE_SHARE_READ, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                    ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, ULONG_PTR *information = nullptr)
    {
        std::u16string wide(path, path + strlen(path));
        UNICODE_STRING name;
        name.Buffer = reinterpret_cast<PWCH>(const_cast<char16_t *>(wide.c_str()));
        name.Length = name.MaximumLength = static_cast<USHORT>(wide.size() * 2);
        OBJECT_ATTRIBUTES attrs;
        InitializeObjectAttributes(&attrs, &name, attributes, nullptr, nullptr);
        IO_STATUS_BLOCK io;
        io.Status = -1;
        io.Information = 99;
        *handle = nullptr;
        NTSTATUS status = ZwCreateFile(handle, access, &attrs, &io, nullptr, FILE_ATTRIBUTE_NORMAL, share, disposition,
                                       options, nullptr, 0);
        if (information != nullptr)
            *information = io.Information;
        return status;
    }

    NTSTATUS Write(HANDLE handle, const std::string &text, PLARGE_INTEGER offset = nullptr, ULONG_PTR *written = nullptr)
    {
        IO_STATUS_BLOCK io{};
        NTSTATUS status = ZwWriteFile(handle, nullptr, nullptr, nullptr, &io, const_cast<char *>(text.data()),
                                      static_cast<ULONG>(text.size()), offset, nullptr);
        if (written != nullptr)
            *written = io.Information;
        return status;
    }

    std::string Contents(const std::string &relative)
    {
        std::ifstream in(dir_ + "/" + relative, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string dir_;
    std::string saved_;
};

TEST_F(DriveFiles, SupersedeCreatesThenReplacesAndSynchronousWritesAdvance)
{
    HANDLE file;
    ULONG_PTR information = 0;
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\log.eth", FILE_SUPERSEDE, &file, FILE_WRITE_DATA | SYNCHRONIZE,
                                     FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT,
                                     OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, &information));
    EXPECT_EQ(static_cast<ULONG_PTR>(FILE_CREATED), information);
    EXPECT_EQ(1u, HkOpenDriveFileCount());
    ULONG_PTR written = 0;
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "abc", nullptr, &written));
    EXPECT_EQ(3u, written);
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "de"));
    LARGE_INTEGER at;
    at.QuadPart = 1;
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "X", &at));
    at.HighPart = -1;
    at.LowPart = FILE_WRITE_TO_END_OF_FILE;
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "!", &at));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
    EXPECT_EQ("aXcde!", Contents("log.eth"));

    // A second supersede, spelt differently, replaces the same file.
    ASSERT_EQ(STATUS_SUCCESS, Create("\\DosDevices\\c:\\LOG.ETH", FILE_SUPERSEDE, &file, FILE_WRITE_DATA | SYNCHRONIZE,
                                     FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT,
                                     OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, &information));
    EXPECT_EQ(static_cast<ULONG_PTR>(FILE_SUPERSEDED), information);
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "z"));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
    EXPECT_EQ("z", Contents("log.eth"));
}

TEST_F(DriveFiles, CachedWritesReachTheHostFileWhenTheWriterBlocksOrTheFileCloses)
{
    HANDLE file;
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\cached.eth", FILE_SUPERSEDE, &file));
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "head"));
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "tail"));
    EXPECT_EQ("", Contents("cached.eth"));
    KEVENT idle;
    KeInitializeEvent(&idle, NotificationEvent, FALSE);
    LARGE_INTEGER shortly;
    shortly.QuadPart = -10000; /* 1 ms */
    EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(&idle, Executive, KernelMode, FALSE, &shortly));
    EXPECT_EQ("headtail", Contents("cached.eth"));
    EXPECT_EQ(STATUS_SUCCESS, Write(file, std::string(100000, 'x')));
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "end"));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
    EXPECT_EQ("headtail" + std::string(100000, 'x') + "end", Contents("cached.eth"));
}

TEST_F(DriveFiles, DispositionsNamesAndArgumentsAnswerAsWindowsDoes)
{
    HANDLE file;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Create("\\??\\C:\\none", FILE_OPEN, &file));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Create("\\??\\C:\\none", FILE_OVERWRITE, &file));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Create("\\??\\C:\\nodir\\x", FILE_CREATE, &file));
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, Create("\\??\\C:\\..\\x", FILE_CREATE, &file));
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, Create("\\??\\C:\\a*b", FILE_CREATE, &file));
    EXPECT_EQ(STATUS_FILE_IS_A_DIRECTORY, Create("\\??\\C:\\", FILE_OPEN_IF, &file));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Create("\\??\\Q:\\x", FILE_CREATE, &file));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Create("\\??\\C:\\x", FILE_CREATE, &file, FILE_WRITE_DATA));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Create("\\??\\C:\\x", 6, &file));
    EXPECT_EQ(0, mkdir((dir_ + "/Sub").c_str(), 0777));

    ULONG_PTR information = 0;
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\sub\\Name.txt", FILE_CREATE, &file, FILE_WRITE_DATA | SYNCHRONIZE,
                                     FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT,
                                     OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, &information));
    EXPECT_EQ(static_cast<ULONG_PTR>(FILE_CREATED), information);
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "hello"));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
    EXPECT_EQ("hello", Contents("Sub/Name.txt"));

    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, Create("\\??\\C:\\SUB\\name.TXT", FILE_CREATE, &file));
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\sub\\name.txt", FILE_OVERWRITE_IF, &file, FILE_WRITE_DATA | SYNCHRONIZE,
                                     FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT,
                                     OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, &information));
    EXPECT_EQ(static_cast<ULONG_PTR>(FILE_OVERWRITTEN), information);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
    EXPECT_EQ("", Contents("Sub/Name.txt"));
    // Without OBJ_CASE_INSENSITIVE another spelling is another file.
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\Sub\\NAME.txt", FILE_CREATE, &file, FILE_WRITE_DATA | SYNCHRONIZE,
                                     FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT, OBJ_KERNEL_HANDLE));
    EXPECT_EQ(STATUS_SUCCESS, Write(file, "other"));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
    EXPECT_EQ("other", Contents("Sub/NAME.txt"));
    EXPECT_EQ("", Contents("Sub/Name.txt"));
}

TEST_F(DriveFiles, ShareAccessAndGrantedAccessAreEnforced)
{
    HANDLE writer, other;
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\shared", FILE_SUPERSEDE, &writer));
    // The writer shares reading only: a second writer is refused, a reader that shares writing is not.
    EXPECT_EQ(STATUS_SHARING_VIOLATION, Create("\\??\\C:\\shared", FILE_OPEN, &other, FILE_WRITE_DATA | SYNCHRONIZE,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE));
    EXPECT_EQ(STATUS_SHARING_VIOLATION, Create("\\??\\C:\\shared", FILE_SUPERSEDE, &other));
    EXPECT_EQ(STATUS_SHARING_VIOLATION,
              Create("\\??\\C:\\shared", FILE_OPEN, &other, FILE_READ_DATA | SYNCHRONIZE, FILE_SHARE_READ));
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\shared", FILE_OPEN, &other, FILE_READ_DATA | SYNCHRONIZE,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Write(other, "no"));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(other));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(writer));

    // An asynchronous file needs an explicit offset.
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\shared", FILE_OPEN, &writer, FILE_WRITE_DATA, 0, 0));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Write(writer, "x"));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(writer));
    EXPECT_EQ(STATUS_INVALID_HANDLE, Write(writer, "x"));
}

TEST_F(DriveFiles, FileCallsAbovePassiveLevelAreVerifierFindings)
{
    HANDLE file;
    ASSERT_EQ(STATUS_SUCCESS, Create("\\??\\C:\\irql", FILE_SUPERSEDE, &file));
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    {
        ExpectVerifierFinding finding("called at IRQL 2");
        Write(file, "x");
    }
    KeLowerIrql(old);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
}

} // namespace
