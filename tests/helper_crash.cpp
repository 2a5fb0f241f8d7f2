// helper_crash: zepcrash's own handler and crashes (tools/zepcrash.cpp is built in, its entry
// point named zepcrashMain), plus what only the tests need:
//   helper_crash heldlock TRAPFILE   zepcrash's null crash while another thread holds two of the
//                                    symbol engine's mutexes (one of them for good)
//   helper_crash ARGS...             zepcrash ARGS...
#include <pthread.h>
#include <unistd.h>

#include <string>

#include "zep.h"
#include "zepos.h"

int zepcrashMain(int argc, char** argv);

namespace {

volatile int g_heldReady = 0;

void* holder(void*) {
    const std::string pid = std::to_string(getpid());
    zepos::HANDLE sym = zepos::sym::CreateMutexA(nullptr, 0, ("SymGetSymFromAddr-" + pid).c_str());
    zepos::HANDLE walk = zepos::sym::CreateMutexA(nullptr, 0, ("StackWalk-" + pid).c_str());
    zepos::WaitForSingleObject(sym, zepos::INFINITE);
    zepos::WaitForSingleObject(walk, zepos::INFINITE);
    __atomic_store_n(&g_heldReady, 1, __ATOMIC_RELEASE);
    usleep(300 * 1000);  // the walk's mutex comes free after a while, the look-up's never
    zepos::sym::ReleaseMutex(walk);
    for (;;) pause();
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 || std::string(argv[1]) != "heldlock") return zepcrashMain(argc, argv);
    pthread_t t;
    pthread_create(&t, nullptr, holder, nullptr);
    while (!__atomic_load_n(&g_heldReady, __ATOMIC_ACQUIRE)) usleep(1000);
    char null[] = "null";
    char* args[] = {argv[0], null, argv[2], nullptr};
    return zepcrashMain(3, args);
}
