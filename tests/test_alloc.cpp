// The allocator: argument rules, the file hash, the null free's log record, and areas: their head,
// rounding to 12, best fit with its tie rule, exhaustion, random use against a model, and one area
// shared by threads and processes.
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "zep.h"
#include "zeptest_capture.h"
#include "zeptest_stress.h"
#include "zeptest_util.h"

namespace {

using Pieces = std::vector<std::pair<Uint32, Uint32>>;  // offset, size

// The free list from the head, checking its back links and its order on the way.
Pieces freeList(const void* area) {
    Pieces list;
    Uint32 prev = 0;
    for (Uint32 at = static_cast<const ZEPMemArea*>(area)->head; at != 0 && list.size() < 100000;) {
        const auto* n =
            reinterpret_cast<const ZEPMemAreaNode*>(static_cast<const char*>(area) + at);
        EXPECT_EQ(n->prev, prev) << at;
        EXPECT_TRUE(n->size % 12 == 0 && (list.empty() || list.back().second >= n->size)) << at;
        list.push_back({at, n->size});
        prev = at;
        at = n->next;
    }
    return list;
}

struct Area {
    explicit Area(Uint32 size) : bytes(size) { EXPECT_EQ(zepMemAreaInit(base(), size), 0u); }
    char* base() { return bytes.data(); }
    Pieces list() { return freeList(base()); }
    std::vector<char> bytes;
};

// `count` random allocations and frees in a shared area, each block filled with `tag` and checked
// before its free: the number of blocks found damaged or refused.
int useArea(char* base, Uint8 tag, Uint32 count) {
    std::mt19937 rng(tag);
    std::vector<std::pair<Uint8*, Uint32>> mine;
    int bad = 0;
    for (Uint32 i = 0; i < count || !mine.empty(); ++i) {
        if (i < count && mine.size() < 20 && (mine.empty() || rng() % 3)) {
            const Uint32 size = static_cast<Uint32>(1 + rng() % 100);
            void* p = nullptr;
            if (zepMemAlloc(&p, base, size, 0) != 0) continue;
            memset(p, tag, size);
            mine.push_back({static_cast<Uint8*>(p), size});
        } else {
            auto [p, size] = mine.back();
            mine.pop_back();
            bad += std::count(p, p + size, tag) != static_cast<long>(size);
            void* q = p;
            bad += zepMemFree(&q, base, size) != 0;
        }
    }
    return bad;
}

TEST(Alloc, ArgumentsAreaHeadAndTheNullFree) {
    void* p = nullptr;
    // The head of a new area of 100 bytes: the lock, a reserved word, what is usable, the first
    // piece; the smallest area with room for a piece.
    Area area(100);
    const auto* head = reinterpret_cast<const ZEPMemArea*>(area.base());
    EXPECT_EQ(std::vector<Uint32>({Uint32(head->lock), head->reserved, head->usable, head->head}),
              (std::vector<Uint32>{0, 0, 84, 16}));
    EXPECT_EQ(area.list(), (Pieces{{16, 84}}));
    EXPECT_EQ(Area(28).list(), (Pieces{{16, 12}}));
    p = area.base();
    EXPECT_EQ(zepMemAlloc(&p, area.base(), 85, 0), ECF_NO_MEMORY);
    EXPECT_EQ(p, nullptr);
    for (void* where : {static_cast<void*>(nullptr), static_cast<void*>(area.base())}) {
        EXPECT_EQ(zepMemAlloc(&p, where, 0, 0), ECF_INVALID_PARAMETER);
        EXPECT_EQ(zepMemAlloc(&p, where, 8, 4), ECF_INVALID_PARAMETER);
        EXPECT_EQ(zepMemAlloc(nullptr, where, 8, 0), ECF_INVALID_PARAMETER);
    }
    EXPECT_EQ(zepMemFree(nullptr, nullptr, 0), ECF_INVALID_PARAMETER);
    ASSERT_EQ(zepMemAlloc(&p, nullptr, 8, 3), 0u);  // zeroed and marked (the mark: the layouts)
    EXPECT_EQ(static_cast<Uint8*>(p)[7], 0u);

    EXPECT_EQ(zepMemFree(&p, nullptr, 0), 0u);
    EXPECT_EQ(p, nullptr);

    // A null address to free is logged with the caller's place, from the heap or an area.
    for (void* where : {static_cast<void*>(nullptr), static_cast<void*>(area.base())}) {
        zeptest::calls.clear();
        void* null = nullptr;
        EXPECT_EQ(_zepMemFree(&null, where, 12, "some/where.cpp", 321), ECF_MEM_NULL_POINTER);
        const zeptest::Call& log =
            zeptest::theLog(ZEPFN_zepMemFree, 20, ECF_MEM_NULL_POINTER, ZEP_LOG_ERROR);
        ASSERT_EQ(log.items.size(), 1u);
        EXPECT_EQ(log.items[0].bytes,
                  "NULL pointer for memory allocation address found at: some/where.cpp, line 321");
    }
}

// The model: the blocks handed out. The free list must be exactly the gaps between them, each gap
// one piece (so neighbours merge in every order); an allocation must take the last piece that fits
// (the smallest), cleared if asked.
TEST(Area, RandomUseAgainstAModel) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 20; ++round) {
        const Uint32 usable = static_cast<Uint32>(12 * (20 + rng() % 200));
        Area a(16 + usable);
        std::map<Uint32, Uint32> live;  // offset -> rounded size
        for (int step = 0; step < 400; ++step) {
            if (live.empty() || rng() % 5 < 3) {
                const Uint32 size = static_cast<Uint32>(1 + rng() % 120),
                             need = (size + 11) / 12 * 12;
                Uint32 expected = 0;
                for (const auto& [offset, piece] : a.list())
                    if (piece >= need) expected = offset;
                void* p = nullptr;
                const Uint32 flags = step % 2 ? ZEP_MEM_ZERO : 0;
                ASSERT_EQ(zepMemAlloc(&p, a.base(), size, flags), expected ? 0u : ECF_NO_MEMORY);
                if (expected == 0) continue;
                ASSERT_EQ(static_cast<char*>(p), a.base() + expected);
                EXPECT_TRUE(!flags ||
                            std::string(a.base() + expected, need) == std::string(need, 0));
                memset(p, 0xEE, need);
                live[expected] = need;
            } else {
                auto it = std::next(live.begin(), static_cast<long>(rng() % live.size()));
                // Any size that rounds to the same granules frees the same piece; the pointer
                // stays.
                void* p = a.base() + it->first;
                EXPECT_EQ(zepMemFree(&p, a.base(), it->second - static_cast<Uint32>(rng() % 12)),
                          0u);
                EXPECT_EQ(p, a.base() + it->first);
                live.erase(it);
            }
            Pieces gaps;
            Uint32 at = 16;
            for (const auto& [offset, size] : live) {
                if (offset > at) gaps.push_back({at, offset - at});
                at = offset + size;
            }
            if (at < 16 + usable) gaps.push_back({at, 16 + usable - at});
            Pieces list = a.list();
            std::sort(list.begin(), list.end());
            ASSERT_EQ(list, gaps) << "round " << round << " step " << step;
        }
    }
}

// Threads, and processes that map the area at other addresses: all links are offsets and the lock
// lies in the area.
TEST(Area, ThreadsShareOneArea) {
    char name[] = "/tmp/zepareaXXXXXX";
    const int fd = mkstemp(name);
    const Uint32 size = 16 + 12 * 4000, count = 3000 * zeptestStress();
    ASSERT_EQ(ftruncate(fd, size), 0);
    char* base = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ASSERT_EQ(zepMemAreaInit(base, size), 0u);
    pid_t children[2];
    for (int i = 0; i < 2; ++i)
        if ((children[i] = fork()) == 0) {
            void* own = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            const bool moved = own != MAP_FAILED && own != base;
            _exit(moved && useArea(static_cast<char*>(own), Uint8(5 + i), count) == 0 ? 0 : 1);
        }
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (Uint8 t = 1; t <= 4; ++t) threads.emplace_back([&, t] { bad += useArea(base, t, count); });
    for (std::thread& t : threads) t.join();
    for (pid_t child : children) EXPECT_EQ(zeptest::waitExit(child), 0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(freeList(base), (Pieces{{16, 12 * 4000}}));  // everything came back
    EXPECT_EQ(reinterpret_cast<const ZEPMemArea*>(base)->lock, 0);
    munmap(base, size);
    close(fd);
    unlink(name);
}

}  // namespace
