// The named-object layer under every IPC object: the mode and inheritance the security attributes
// give its objects.
#include <sys/stat.h>

#include "zeptest_ipc.h"

using namespace zeptest;
using zepos::NamedKind;

namespace {

// The mode bits of a semaphore's file, -1 if it has none.
int modeOf(const char* name) {
    char file[9 + zepos::NAMED_LINUX_NAME_SIZE] = "/dev/shm/";
    zepos::NamedLinuxName(NamedKind::Semaphore, name, file + 9);
    struct stat st;
    return stat(file, &st) == 0 ? st.st_mode & 0777 : -1;
}

using Named = IpcTest;

}  // namespace

// The library's attributes open an object to every user, whatever the umask, and let children
// inherit it across exec; an override's mode and inheritance flag are kept to.
TEST_F(Named, ModeAndInheritanceFollowTheAttributes) {
    ZEPIPCSemaphoreCreateParam open, narrow;
    open.resID = idOf("open"), narrow.resID = idOf("narrow");
    ZEPHIPCSemaphore a, b;
    const mode_t old = umask(077);
    ASSERT_EQ(a.create(&open), 0u);
    SECURITY_DESCRIPTOR sd{};
    sd.Mode = 0640;
    SECURITY_ATTRIBUTES sa{sizeof sa, &sd, 0};
    zepSetSecurityAttributesForZEP(&sa);
    ASSERT_EQ(b.create(&narrow), 0u);
    zepSetSecurityAttributesForZEP(nullptr);
    umask(old);
    EXPECT_EQ(modeOf(open.resID.name), 0666);
    EXPECT_EQ(modeOf(narrow.resID.name), 0640);

    // A child holds the inherited object after its creator let go, but not the other one.
    IpcProc child(true);
    ASSERT_EQ(child.run("ping"), "pong");
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_EQ(b.destroy(), 0u);
    EXPECT_EQ(modeOf(open.resID.name), 0666);
    EXPECT_EQ(modeOf(narrow.resID.name), -1);
    EXPECT_EQ(child.finish(), 0);
    // Its exit let go without removing the object; the next look at the name does.
    EXPECT_EQ(zepos::NamedOpen(NamedKind::Semaphore, open.resID.name, 0), nullptr);
    EXPECT_EQ(modeOf(open.resID.name), -1);
}
