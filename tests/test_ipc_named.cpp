// The named-object layer: names, the lifetime across real processes (SIGKILL included), kinds,
// security, the reservation of memory, and the named file mappings and their views.
#include <sys/stat.h>

#include <set>

#include "zeptest_ipc.h"
#include "zepos.h"

using namespace zeptest;
using zepos::NamedKind;

namespace {

std::string linuxName(NamedKind kind, const std::string& name) {
    char out[zepos::NAMED_LINUX_NAME_SIZE];
    zepos::NamedLinuxName(kind, name.c_str(), out);
    return out;
}

// The object's mode bits, -1 if it has no file.
int modeOf(NamedKind kind, const std::string& name) {
    struct stat st;
    return stat(("/dev/shm/" + linuxName(kind, name)).c_str(), &st) == 0 ? st.st_mode & 0777 : -1;
}
bool exists(NamedKind kind, const std::string& name) {
    return modeOf(kind, name) >= 0;
}

SECURITY_ATTRIBUTES attributes(SECURITY_DESCRIPTOR& sd, Uint32 mode, int inherit = 0) {
    zepos::InitializeSecurityDescriptor(&sd, 1);
    sd.Mode = mode;
    return SECURITY_ATTRIBUTES{sizeof(SECURITY_ATTRIBUTES), &sd, inherit};
}

using Named = IpcTest;

}  // namespace

TEST(NamedNames, InjectiveBoundedAndReadable) {
    const std::string longA = std::string(230, 'q') + "A" + std::string(30, 'z');
    const std::string longB = std::string(230, 'q') + "B" + std::string(30, 'z');
    const std::string slashes(87, '/');  // escapes to 261 characters: hashed
    const std::vector<std::string> names = {"ZEPEIPC5/data/inst1",
                                            "ZEPEIPC5%2Fdata%2Finst1",
                                            "ZEPEIPC5_data_inst1",
                                            "ZEPEIPC5\\data",
                                            "a%",
                                            "a%25",
                                            "a",
                                            "A",
                                            "a.",
                                            "a#",
                                            longA,
                                            longB,
                                            slashes,
                                            slashes + "/",
                                            std::string(250, 'x'),
                                            std::string(251, 'x'),
                                            "\x01\xff",
                                            "\x01\xfe"};
    std::set<std::string> seen;
    for (NamedKind kind :
         {NamedKind::FileMapping, NamedKind::Semaphore, NamedKind::Event, NamedKind::Mutex})
        for (const std::string& n : names) {
            const std::string l = linuxName(kind, n);
            EXPECT_LE(l.size(), 255u) << n;
            EXPECT_EQ(l.find('/'), std::string::npos) << n;
            EXPECT_TRUE(seen.insert(l).second) << "collision for " << n;
        }
    // Short names stay readable in a listing of /dev/shm.
    EXPECT_EQ(linuxName(NamedKind::FileMapping, "ZEPEIPC5/data/inst1"),
              "zepM.ZEPEIPC5%2Fdata%2Finst1");
    EXPECT_EQ(linuxName(NamedKind::Semaphore, "a b%"), "zepS.a%20b%25");
    EXPECT_EQ(linuxName(NamedKind::Event, longA).substr(0, 5), "zepE#");
    EXPECT_EQ(linuxName(NamedKind::Event, longA).size(), 69u);
}

TEST_F(Named, LifetimeAcrossProcesses) {
    const std::string name = tag_ + "/life";
    IpcProc a, b;
    EXPECT_EQ(a.run("lo 1 " + name), "fail 2");
    EXPECT_EQ(a.run("lc 1 " + name + " 5000"), "ok 0 0 5000");
    EXPECT_EQ(a.run("w 4999 77"), "ok");
    // A second create finds the first object with its own size, whatever size it asks for.
    EXPECT_EQ(b.run("lc 1 " + name + " 10"), "ok 183 0 5000");
    EXPECT_EQ(b.run("r 4999"), "v 77");
    EXPECT_EQ(b.run("lo 1 " + name), "ok 0 1 5000");
    // The creator goes first; the object lives on with its other holder.
    EXPECT_EQ(a.run("lx 0"), "ok");
    EXPECT_TRUE(exists(NamedKind::FileMapping, name));
    EXPECT_EQ(b.run("lx 0"), "ok");
    EXPECT_EQ(a.run("lo 1 " + name), "ok 0 0 5000");
    EXPECT_EQ(a.run("r 4999"), "v 77");
    EXPECT_EQ(a.run("lx 0"), "ok");
    EXPECT_EQ(b.run("lx 1"), "ok");
    // The last close removed it: a create makes a fresh, zeroed block.
    EXPECT_FALSE(exists(NamedKind::FileMapping, name));
    EXPECT_EQ(b.run("lo 1 " + name), "fail 2");
    EXPECT_EQ(b.run("lc 1 " + name + " 10"), "ok 0 0 10");
    EXPECT_EQ(b.run("r 9"), "v 0");
    // An exit lets go of the object without removing it: the next look at the name does.
    EXPECT_EQ(b.finish(), 0);
    EXPECT_TRUE(exists(NamedKind::FileMapping, name));
    EXPECT_EQ(zepos::NamedOpen(NamedKind::FileMapping, name.c_str(), 0), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 2u);
}

TEST_F(Named, KindsAndLongNamesAreApart) {
    const std::string base = tag_ + std::string(250, 'n');
    const std::string n1 = base + "1", n2 = base + "2";  // too long to escape: hashed
    ASSERT_EQ(linuxName(NamedKind::FileMapping, n1).substr(3, 2), "M#");
    IpcProc p;
    EXPECT_EQ(p.run("lc 1 " + n1 + " 16"), "ok 0 0 16");
    EXPECT_EQ(p.run("w 0 1"), "ok");
    EXPECT_EQ(p.run("lc 1 " + n2 + " 16"), "ok 0 1 16");
    EXPECT_EQ(p.run("r 0"), "v 0");
    EXPECT_EQ(p.run("lo 3 " + n1), "fail 2");
    EXPECT_EQ(p.run("lc 3 " + n1 + " 8"), "ok 0 2 8");
    EXPECT_EQ(p.run("r 0"), "v 0");
    zepos::NamedObject* o = zepos::NamedOpen(NamedKind::FileMapping, n1.c_str(), 0);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(zepos::NamedBlock(o))[0], 1);
    zepos::NamedClose(o);
    // 262 characters can't name an object.
    EXPECT_EQ(zepos::NamedOpen(NamedKind::FileMapping, (n1 + "xx").c_str(), 0), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 2u);
    EXPECT_EQ(p.finish(), 0);
    // Hashed names don't carry the tag: the exit left them stale, the next look clears them.
    for (const auto& [kind, n] : {std::pair{NamedKind::FileMapping, n1},
                                  {NamedKind::FileMapping, n2},
                                  {NamedKind::Mutex, n1}}) {
        EXPECT_EQ(zepos::NamedOpen(kind, n.c_str(), 0), nullptr);
        EXPECT_FALSE(exists(kind, n));
    }
}

TEST_F(Named, ModeIsSetExactlyAndReservationFailsEarly) {
    const mode_t old = umask(077);
    const std::string open = tag_ + "open", narrow = tag_ + "narrow";
    SECURITY_DESCRIPTOR sd{};
    SECURITY_ATTRIBUTES sa = attributes(sd, 0640);
    zepos::NamedObject* a =
        zepos::NamedCreate(NamedKind::FileMapping, open.c_str(), 100, nullptr, nullptr, nullptr);
    zepos::NamedObject* b =
        zepos::NamedCreate(NamedKind::FileMapping, narrow.c_str(), 100, &sa, nullptr, nullptr);
    umask(old);
    EXPECT_EQ(modeOf(NamedKind::FileMapping, open), 0666);
    EXPECT_EQ(modeOf(NamedKind::FileMapping, narrow), 0640);
    zepos::NamedClose(a);
    zepos::NamedClose(b);

    // Far more than the file system holds: refused at create, nothing left behind.
    const std::string huge = tag_ + "huge";
    EXPECT_EQ(zepos::NamedCreate(NamedKind::FileMapping, huge.c_str(), size_t(1) << 46, nullptr,
                                 nullptr, nullptr),
              nullptr);
    const Uint32 err = zepos::GetLastError();
    EXPECT_TRUE(err == zepos::ERROR_DISK_FULL || err == zepos::ERROR_NOT_ENOUGH_MEMORY) << err;
    EXPECT_EQ(
        zepos::NamedCreate(NamedKind::FileMapping, huge.c_str(), 0, nullptr, nullptr, nullptr),
        nullptr);
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_INVALID_PARAMETER);
}

TEST_F(Named, AnotherUsersClosedObjectIsAccessDenied) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as a second user";
    const std::string name = tag_ + "mine";
    SECURITY_DESCRIPTOR sd{};
    SECURITY_ATTRIBUTES sa = attributes(sd, 0600);
    zepos::NamedObject* o =
        zepos::NamedCreate(NamedKind::Event, name.c_str(), 8, &sa, nullptr, nullptr);
    ASSERT_NE(o, nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (setuid(65534) != 0) _exit(10);
        if (zepos::NamedOpen(NamedKind::Event, name.c_str(), 0) != nullptr) _exit(11);
        zepos::NamedObject* x =
            zepos::NamedCreate(NamedKind::Event, name.c_str(), 8, nullptr, nullptr, nullptr);
        _exit(x == nullptr && zepos::GetLastError() == zepos::ERROR_ACCESS_DENIED ? 0 : 12);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    zepos::NamedClose(o);
}

TEST_F(Named, MappingViewsKeepTheBlockAndKeepTheirPlace) {
    const std::string name = tag_ + "map";
    auto create = [](Uint32 size, const char* n) {
        return zepos::CreateFileMappingA(zepos::INVALID_HANDLE_VALUE, nullptr,
                                         zepos::PAGE_READWRITE, 0, size, n);
    };
    auto map = [](zepos::HANDLE h, Uint32 access = 6, void* at = nullptr) {
        return static_cast<char*>(zepos::MapViewOfFileEx(h, access, 0, 0, 0, at));
    };
    zepos::HANDLE h = create(10000, name.c_str());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(zepos::GetLastError(), 0u);
    zepos::HANDLE again = create(1, name.c_str());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_ALREADY_EXISTS);
    char* v = map(h);
    ASSERT_NE(v, nullptr);
    strcpy(v, "shared");
    char* w = map(again);
    ASSERT_NE(w, nullptr);
    EXPECT_STREQ(w, "shared");
    zepos::MEMORY_BASIC_INFORMATION mbi;
    ASSERT_EQ(zepos::VirtualQueryEx(zepos::GetCurrentProcess(), w + 5000, &mbi, sizeof mbi),
              sizeof mbi);
    EXPECT_EQ(mbi.RegionSize, 12288u - 4096u);  // from the page of the address to the end
    EXPECT_EQ(mbi.AllocationBase, w);
    // A read-only view faults on a write.
    char* r = map(h, 4);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r, "shared");
    EXPECT_TRUE(writeFaults(r));
    EXPECT_TRUE(zepos::UnmapViewOfFile(r));
    // A wanted address is granted exactly, or refused where something lives.
    EXPECT_EQ(map(again, 6, v), nullptr);
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_INVALID_ADDRESS);
    ASSERT_TRUE(zepos::UnmapViewOfFile(w));
    char* at = map(again, 6, w);
    EXPECT_EQ(at, w);
    EXPECT_STREQ(at, "shared");
    // Handles closed, the views hold the block; the last unmap removes it.
    ASSERT_TRUE(zepos::CloseHandle(h));
    ASSERT_TRUE(zepos::CloseHandle(again));
    EXPECT_TRUE(exists(NamedKind::FileMapping, name));
    zepos::HANDLE ro = zepos::OpenFileMappingA(zepos::FILE_MAP_READ, 0, name.c_str());
    ASSERT_NE(ro, nullptr);
    EXPECT_EQ(map(ro), nullptr);
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_ACCESS_DENIED);
    ASSERT_TRUE(zepos::CloseHandle(ro));
    ASSERT_TRUE(zepos::UnmapViewOfFile(v));
    EXPECT_TRUE(exists(NamedKind::FileMapping, name));
    ASSERT_TRUE(zepos::UnmapViewOfFile(at));
    EXPECT_FALSE(exists(NamedKind::FileMapping, name));
    EXPECT_FALSE(zepos::UnmapViewOfFile(at));
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_INVALID_ADDRESS);
    EXPECT_EQ(zepos::OpenFileMappingA(6, 0, name.c_str()), nullptr);
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_FILE_NOT_FOUND);
    // No name: a block of this process alone, shared between its views.
    zepos::HANDLE anon = create(100, nullptr);
    ASSERT_NE(anon, nullptr);
    char *a1 = map(anon), *a2 = map(anon);
    a1[99] = 'z';
    EXPECT_EQ(a2[99], 'z');
    zepos::UnmapViewOfFile(a1);
    zepos::UnmapViewOfFile(a2);
    zepos::CloseHandle(anon);
    EXPECT_EQ(create(0, name.c_str()), nullptr);
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_INVALID_PARAMETER);
}

TEST_F(Named, InheritedDescriptorHoldsTheObjectAcrossExec) {
    const std::string kept = tag_ + "kept", dropped = tag_ + "dropped";
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, 1}, no{sizeof no, nullptr, 0};
    zepos::NamedObject* k =
        zepos::NamedCreate(NamedKind::Mutex, kept.c_str(), 8, &inherit, nullptr, nullptr);
    zepos::NamedObject* d =
        zepos::NamedCreate(NamedKind::Mutex, dropped.c_str(), 8, &no, nullptr, nullptr);
    ASSERT_NE(k, nullptr);
    ASSERT_NE(d, nullptr);
    IpcProc child(true);
    ASSERT_EQ(child.run("ping"), "pong");
    zepos::NamedClose(k);
    zepos::NamedClose(d);
    EXPECT_TRUE(exists(NamedKind::Mutex, kept));
    EXPECT_FALSE(exists(NamedKind::Mutex, dropped));
    EXPECT_EQ(child.run("lo 4 " + kept), "ok 0 0 8");
    EXPECT_EQ(child.finish(), 0);
    // The child's own close found the inherited descriptor still open; the object is stale now
    // and the next look at the name clears it.
    EXPECT_EQ(zepos::NamedOpen(NamedKind::Mutex, kept.c_str(), 0), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 2u);
}
