// The named-object layer: names, the lifetime across real processes, kinds, security, the
// reservation of memory, inheritance, and the named file mappings and their views.
#include <sys/stat.h>

#include <set>

#include "zeptest_ipc.h"

using namespace zeptest;
using zepos::NamedKind;
const NamedKind kMap = NamedKind::FileMapping;

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

zepos::NamedObject* create(NamedKind kind, const std::string& name, size_t bytes,
                           SECURITY_ATTRIBUTES* sa = nullptr) {
    return zepos::NamedCreate(kind, name.c_str(), bytes, sa, nullptr, nullptr);
}

SECURITY_ATTRIBUTES attributes(SECURITY_DESCRIPTOR& sd, Uint32 mode) {
    zepos::InitializeSecurityDescriptor(&sd, 1);
    sd.Mode = mode;
    return SECURITY_ATTRIBUTES{sizeof(SECURITY_ATTRIBUTES), &sd, 0};
}

using Named = IpcTest;

}  // namespace

TEST(NamedNames, InjectiveBoundedAndReadable) {
    const std::string longA = std::string(230, 'q') + "A" + std::string(30, 'z');
    const std::string slashes(87, '/');  // escapes to 261 characters: hashed
    std::vector<std::string> names = {longA,
                                      std::string(230, 'q') + "B" + std::string(30, 'z'),
                                      slashes,
                                      slashes + "/",
                                      std::string(250, 'x'),
                                      std::string(251, 'x')};
    std::istringstream words(
        "ZEPEIPC5/data/inst1 ZEPEIPC5%2Fdata%2Finst1 ZEPEIPC5_data_inst1 ZEPEIPC5\\data a% a%25 a "
        "A a. a# \x01\xff \x01\xfe");
    for (std::string w; words >> w;) names.push_back(w);
    std::set<std::string> seen;
    for (NamedKind kind : {kMap, NamedKind::Semaphore, NamedKind::Event, NamedKind::Mutex})
        for (const std::string& n : names) {
            const std::string l = linuxName(kind, n);
            EXPECT_LE(l.size(), 255u) << n;
            EXPECT_EQ(l.find('/'), std::string::npos) << n;
            EXPECT_TRUE(seen.insert(l).second) << "collision for " << n;
        }
    // Short names stay readable in a listing of /dev/shm.
    EXPECT_EQ(linuxName(kMap, "ZEPEIPC5/data/inst1"), "zepM.ZEPEIPC5%2Fdata%2Finst1");
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
    EXPECT_EQ(modeOf(kMap, name), 0666);
    EXPECT_EQ(b.run("lx 0"), "ok");
    EXPECT_EQ(a.run("lo 1 " + name), "ok 0 0 5000");
    EXPECT_EQ(a.run("r 4999"), "v 77");
    EXPECT_EQ(a.run("lx 0"), "ok");
    EXPECT_EQ(b.run("lx 1"), "ok");
    // The last close removed it: a create makes a fresh, zeroed block.
    EXPECT_EQ(modeOf(kMap, name), -1);
    EXPECT_EQ(b.run("lo 1 " + name), "fail 2");
    EXPECT_EQ(b.run("lc 1 " + name + " 10"), "ok 0 0 10");
    EXPECT_EQ(b.run("r 9"), "v 0");
    // An exit lets go of the object without removing it: the next look at the name does.
    EXPECT_EQ(b.finish(), 0);
    EXPECT_EQ(modeOf(kMap, name), 0666);
    EXPECT_EQ(withError(zepos::NamedOpen(kMap, name.c_str(), 0)), "0 2");
}

TEST_F(Named, KindsAndLongNamesAreApart) {
    const std::string n1 = tag_ + std::string(250, 'n') + "1";  // too long to escape: hashed
    const std::string n2 = n1 + "2", n3 = n1 + "xx";
    ASSERT_EQ(linuxName(kMap, n1).substr(3, 2), "M#");
    IpcProc p;
    EXPECT_EQ(p.run("lc 1 " + n1 + " 16"), "ok 0 0 16");
    EXPECT_EQ(p.run("w 0 1"), "ok");
    EXPECT_EQ(p.run("lc 1 " + n2 + " 16"), "ok 0 1 16");
    EXPECT_EQ(p.run("r 0"), "v 0");
    EXPECT_EQ(p.run("lo 3 " + n1), "fail 2");
    EXPECT_EQ(p.run("lc 3 " + n1 + " 8"), "ok 0 2 8");
    EXPECT_EQ(p.run("r 0"), "v 0");
    zepos::NamedObject* o = zepos::NamedOpen(kMap, n1.c_str(), 0);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(zepos::NamedBlock(o))[0], 1);
    zepos::NamedClose(o);
    EXPECT_EQ(withError(zepos::NamedOpen(kMap, n3.c_str(), 0)), "0 2");  // 262 characters
    EXPECT_EQ(p.finish(), 0);
    // Hashed names don't carry the tag: the exit left them stale, the next look clears them.
    for (const auto& [kind, n] : {std::pair{kMap, n1}, {kMap, n2}, {NamedKind::Mutex, n1}}) {
        EXPECT_EQ(zepos::NamedOpen(kind, n.c_str(), 0), nullptr);
        EXPECT_EQ(modeOf(kind, n), -1);
    }
}

TEST_F(Named, ModeIsSetExactlyAndReservationFailsEarly) {
    const mode_t old = umask(077);
    SECURITY_DESCRIPTOR sd{};
    SECURITY_ATTRIBUTES sa = attributes(sd, 0640);
    zepos::NamedObject* a = create(kMap, tag_ + "open", 100);
    zepos::NamedObject* b = create(kMap, tag_ + "narrow", 100, &sa);
    umask(old);
    EXPECT_EQ(modeOf(kMap, tag_ + "open"), 0666);
    EXPECT_EQ(modeOf(kMap, tag_ + "narrow"), 0640);
    zepos::NamedClose(a);
    zepos::NamedClose(b);
    // Far more than the file system holds: refused at create, nothing left behind.
    EXPECT_EQ(create(kMap, tag_ + "huge", size_t(1) << 46), nullptr);
    const Uint32 err = zepos::GetLastError();
    EXPECT_TRUE(err == zepos::ERROR_DISK_FULL || err == zepos::ERROR_NOT_ENOUGH_MEMORY) << err;
    EXPECT_EQ(withError(create(kMap, tag_ + "huge", 0)), "0 87");
}

TEST_F(Named, AnotherUsersClosedObjectIsAccessDenied) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as a second user";
    const std::string name = tag_ + "mine";
    SECURITY_DESCRIPTOR sd{};
    SECURITY_ATTRIBUTES sa = attributes(sd, 0600);
    zepos::NamedObject* o = create(NamedKind::Event, name, 8, &sa);
    ASSERT_NE(o, nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (setuid(65534) != 0 || zepos::NamedOpen(NamedKind::Event, name.c_str(), 0)) _exit(10);
        _exit(withError(create(NamedKind::Event, name, 8)) == "0 5" ? 0 : 11);
    }
    EXPECT_EQ(waitExit(child), 0);
    zepos::NamedClose(o);
}

TEST_F(Named, MappingViewsKeepTheBlockAndKeepTheirPlace) {
    const std::string name = tag_ + "map";
    auto mapping = [](Uint32 size, const char* n) {
        return zepos::CreateFileMappingA(zepos::INVALID_HANDLE_VALUE, nullptr,
                                         zepos::PAGE_READWRITE, 0, size, n);
    };
    auto map = [](zepos::HANDLE h, Uint32 access = 6, void* at = nullptr) {
        return static_cast<char*>(zepos::MapViewOfFileEx(h, access, 0, 0, 0, at));
    };
    zepos::HANDLE h, again, ro;
    EXPECT_EQ(withError(h = mapping(10000, name.c_str())), "1 0");
    EXPECT_EQ(withError(again = mapping(1, name.c_str())), "1 183");
    char *v = map(h), *w = map(again), *r = map(h, 4);
    ASSERT_TRUE(v && w && r);
    strcpy(v, "shared");
    EXPECT_STREQ(w, "shared");
    zepos::MEMORY_BASIC_INFORMATION mbi;
    ASSERT_EQ(zepos::VirtualQueryEx(zepos::GetCurrentProcess(), w + 5000, &mbi, sizeof mbi),
              sizeof mbi);
    EXPECT_EQ(mbi.RegionSize, 12288u - 4096u);  // from the page of the address to the end
    EXPECT_EQ(mbi.AllocationBase, w);
    EXPECT_STREQ(r, "shared");
    EXPECT_TRUE(writeFaults(r));  // a read-only view
    EXPECT_TRUE(zepos::UnmapViewOfFile(r));
    // A wanted address is granted exactly, or refused where something lives.
    EXPECT_EQ(withError(map(again, 6, v)), "0 487");
    ASSERT_TRUE(zepos::UnmapViewOfFile(w));
    EXPECT_EQ(map(again, 6, w), w);
    EXPECT_STREQ(w, "shared");
    // Handles closed, the views hold the block; the last unmap removes it.
    ASSERT_TRUE(zepos::CloseHandle(h) && zepos::CloseHandle(again));
    EXPECT_EQ(withError(ro = zepos::OpenFileMappingA(zepos::FILE_MAP_READ, 0, name.c_str())),
              "1 0");
    EXPECT_EQ(withError(map(ro)), "0 5");
    ASSERT_TRUE(zepos::CloseHandle(ro) && zepos::UnmapViewOfFile(v));
    EXPECT_EQ(modeOf(kMap, name), 0666);
    ASSERT_TRUE(zepos::UnmapViewOfFile(w));
    EXPECT_EQ(modeOf(kMap, name), -1);
    EXPECT_EQ(withError(zepos::UnmapViewOfFile(w)), "0 487");
    EXPECT_EQ(withError(zepos::OpenFileMappingA(6, 0, name.c_str())), "0 2");
    EXPECT_EQ(withError(mapping(0, name.c_str())), "0 87");
    // No name: a block of this process alone, shared between its views.
    zepos::HANDLE anon = mapping(100, nullptr);
    char *a1 = map(anon), *a2 = map(anon);
    ASSERT_TRUE(a1 && a2);
    a1[99] = 'z';
    EXPECT_EQ(a2[99], 'z');
    EXPECT_TRUE(zepos::UnmapViewOfFile(a1) && zepos::UnmapViewOfFile(a2));
    EXPECT_TRUE(zepos::CloseHandle(anon));
}

TEST_F(Named, InheritedDescriptorHoldsTheObjectAcrossExec) {
    const std::string kept = tag_ + "kept", dropped = tag_ + "dropped";
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, 1};
    zepos::NamedObject* k = create(NamedKind::Mutex, kept, 8, &inherit);
    zepos::NamedObject* d = create(NamedKind::Mutex, dropped, 8);
    ASSERT_TRUE(k && d);
    IpcProc child(true);
    ASSERT_EQ(child.run("ping"), "pong");
    zepos::NamedClose(k);
    zepos::NamedClose(d);
    EXPECT_EQ(modeOf(NamedKind::Mutex, kept), 0666);
    EXPECT_EQ(modeOf(NamedKind::Mutex, dropped), -1);
    EXPECT_EQ(child.run("lo 4 " + kept), "ok 0 0 8");
    EXPECT_EQ(child.finish(), 0);
    // The child's own close found the inherited descriptor still open; the object is stale now
    // and the next look at the name clears it.
    EXPECT_EQ(withError(zepos::NamedOpen(NamedKind::Mutex, kept.c_str(), 0)), "0 2");
}
