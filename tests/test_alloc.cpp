// The allocator: argument rules, the file hash, the null free's log record, and areas: rounding
// to 12, best fit with its tie rule, exact fit, exhaustion, merging in every order and against a
// model of random use, and one area used by threads and by two processes at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_capture.h"
#include "zeptest_stress.h"
#include "zeptest_util.h"

namespace {

// ---- reading an area back

struct Piece {
    Uint32 offset, size;
    bool operator==(const Piece& o) const { return offset == o.offset && size == o.size; }
};

const ZEPMemAreaNode* nodeAt(const void* area, Uint32 offset) {
    return reinterpret_cast<const ZEPMemAreaNode*>(static_cast<const char*>(area) + offset);
}

// The free list from the head, checking its links and its order on the way.
std::vector<Piece> freeList(const void* area) {
    std::vector<Piece> list;
    const ZEPMemArea* a = static_cast<const ZEPMemArea*>(area);
    Uint32 prev = 0;
    for (Uint32 at = a->head; at != 0; at = nodeAt(area, at)->next) {
        const ZEPMemAreaNode* n = nodeAt(area, at);
        EXPECT_EQ(n->prev, prev) << "at " << at;
        EXPECT_EQ(n->size % 12, 0u);
        if (!list.empty()) {
            EXPECT_GE(list.back().size, n->size) << "descending sizes";
        }
        list.push_back({at, n->size});
        prev = at;
        if (list.size() > 100000) break;
    }
    return list;
}

Uint32 offsetOf(const void* area, const void* block) {
    return static_cast<Uint32>(static_cast<const char*>(block) - static_cast<const char*>(area));
}

struct Area {
    explicit Area(Uint32 size) : bytes(size + 64), size(size) {
        EXPECT_EQ(zepMemAreaInit(base(), size), 0u);
    }
    void* base() { return bytes.data(); }
    void* alloc(Uint32 n, Uint32 flags = 0) {
        void* p = nullptr;
        EXPECT_EQ(zepMemAlloc(&p, base(), n, flags), 0u) << n;
        return p;
    }
    void release(void* p, Uint32 n) {
        void* q = p;
        EXPECT_EQ(zepMemFree(&q, base(), n), 0u);
        EXPECT_EQ(q, p);  // an area's free leaves the pointer
    }
    std::vector<Piece> list() { return freeList(base()); }
    std::vector<char> bytes;
    Uint32 size;
};

TEST(Alloc, ArgumentsHashAndTheNullFree) {
    void* p = reinterpret_cast<void*>(1);
    Area area(100);
    for (void* where : {static_cast<void*>(nullptr), area.base()}) {
        EXPECT_EQ(zepMemAlloc(&p, where, 0, 0), ECF_INVALID_PARAMETER);
        EXPECT_EQ(zepMemAlloc(&p, where, 8, 4), ECF_INVALID_PARAMETER);
    }
    EXPECT_EQ(zepMemAlloc(&p, nullptr, 8, 0x80000000u), ECF_INVALID_PARAMETER);
    EXPECT_EQ(zepMemAlloc(nullptr, nullptr, 8, 0), ECF_INVALID_PARAMETER);
    EXPECT_EQ(zepMemFree(nullptr, nullptr, 0), ECF_INVALID_PARAMETER);
    ASSERT_EQ(zepMemAlloc(&p, nullptr, 8, 3), 0u);
    EXPECT_EQ(static_cast<Uint8*>(p)[7], 0u);
    Uint32 eye;
    memcpy(&eye, static_cast<char*>(p) - 16, 4);
    EXPECT_EQ(eye, ZEP_MEM_EYECATCHER_MARKED);
    EXPECT_EQ(zepMemFree(&p, nullptr, 0), 0u);
    EXPECT_EQ(p, nullptr);

    // The hash of the file's base name.
    const std::pair<const char*, Uint32> hashes[] = {
        {"ab", 0x6162},          {"/x/y\\ab", 0x6162},           {"abcdef", 0x61620602},
        {"abcdefg", 0x2DABC9E3}, {"a/zepalloc.cpp", 0x25E7E292}, {"", 0}};
    for (const auto& [file, hash] : hashes) {
        ASSERT_EQ(_zepMemAlloc(&p, nullptr, 4, 0, file, 1), 0u);
        Uint32 got;
        memcpy(&got, static_cast<char*>(p) - 8, 4);
        EXPECT_EQ(got, hash) << file;
        zepMemFree(&p, nullptr, 0);
    }

    // A null address to free is logged with the caller's place, from the heap or an area.
    void* null = nullptr;
    for (void* where : {static_cast<void*>(nullptr), area.base()}) {
        zeptest::calls.clear();
        EXPECT_EQ(_zepMemFree(&null, where, 12, "some/where.cpp", 321), ECF_MEM_NULL_POINTER);
        const zeptest::Call& log =
            zeptest::theLog(ZEPFN_zepMemFree, 20, ECF_MEM_NULL_POINTER, ZEP_LOG_ERROR);
        ASSERT_EQ(log.items.size(), 1u);
        EXPECT_EQ(log.items[0].bytes,
                  "NULL pointer for memory allocation address found at: some/where.cpp, line 321");
    }
}

TEST(Area, InitRoundingExactFitAndExhaustion) {
    Area a(100);
    const ZEPMemArea* head = static_cast<const ZEPMemArea*>(a.base());
    EXPECT_EQ(std::vector<Uint32>({Uint32(head->lock), head->reserved, head->usable, head->head}),
              (std::vector<Uint32>{0, 0, 84, 16}));
    EXPECT_EQ(a.list(), (std::vector<Piece>{{16, 84}}));

    // 13 bytes take 24: the rest starts 24 bytes further.
    void* p = a.alloc(13);
    EXPECT_EQ(offsetOf(a.base(), p), 16u);
    EXPECT_EQ(a.list(), (std::vector<Piece>{{40, 60}}));
    // Exactly the rest: no remainder, an empty list, and then no memory.
    void* q = a.alloc(60);
    EXPECT_EQ(offsetOf(a.base(), q), 40u);
    EXPECT_EQ(head->head, 0u);
    void* r = reinterpret_cast<void*>(1);
    EXPECT_EQ(zepMemAlloc(&r, a.base(), 1, 0), ECF_NO_MEMORY);
    EXPECT_EQ(r, nullptr);
    a.release(p, 13);
    a.release(q, 60);
    EXPECT_EQ(a.list(), (std::vector<Piece>{{16, 84}}));
    EXPECT_EQ(zepMemAlloc(&r, a.base(), 85, 0), ECF_NO_MEMORY);

    // Sizes that aren't a multiple of 12 lose the rest; the lowest size with a node is 28.
    Area c(27), d(28);
    EXPECT_EQ(static_cast<const ZEPMemArea*>(c.base())->usable, 0u);
    EXPECT_EQ(c.list(), std::vector<Piece>{});
    EXPECT_EQ(d.list(), (std::vector<Piece>{{16, 12}}));
}

TEST(Area, BestFitTakesTheOlderOfEqualPieces) {
    // Six blocks fill the area: A 24, B 12, C 24, D 12, E 36, F 12.
    Area a(16 + 120);
    void *A = a.alloc(24), *B = a.alloc(12), *C = a.alloc(24), *D = a.alloc(12), *E = a.alloc(36),
         *F = a.alloc(12);
    EXPECT_EQ(a.list(), std::vector<Piece>{});
    memset(E, 0x5A, 36);
    a.release(A, 24);
    a.release(C, 24);
    a.release(E, 36);
    // New pieces go ahead of their equals: 36, C, A.
    EXPECT_EQ(a.list(), (std::vector<Piece>{{offsetOf(a.base(), E), 36},
                                            {offsetOf(a.base(), C), 24},
                                            {offsetOf(a.base(), A), 24}}));
    // 20 bytes: the smallest piece that fits, and of the two the one freed first.
    EXPECT_EQ(a.alloc(20), A);
    EXPECT_EQ(a.alloc(20), C);
    // Zeroing clears the rounded size and leaves the rest a node.
    void* z = a.alloc(13, ZEP_MEM_ZERO);
    EXPECT_EQ(z, E);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(static_cast<char*>(z)[i], 0) << i;
    EXPECT_EQ(a.list(), (std::vector<Piece>{{offsetOf(a.base(), E) + 24, 12}}));
    for (void* p : {B, D, F}) a.release(p, 12);
    a.release(A, 20);
    a.release(C, 20);
    a.release(z, 13);
    EXPECT_EQ(a.list(), (std::vector<Piece>{{16, 120}}));
}

// The model: the blocks handed out. The free list must be exactly the gaps between them, each
// gap one piece; an allocation must take the last piece of the list that fits.
TEST(Area, RandomUseAgainstAModel) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 20; ++round) {
        const Uint32 usable = 12 * (20 + rng() % 200);
        Area a(16 + usable);
        std::map<Uint32, Uint32> live;  // offset -> rounded size
        for (int step = 0; step < 400; ++step) {
            if (live.empty() || rng() % 5 < 3) {
                Uint32 size = 1 + rng() % 120;
                Uint32 need = (size + 11) / 12 * 12;
                std::vector<Piece> before = a.list();
                Uint32 expected = 0;
                for (const Piece& p : before)
                    if (p.size >= need) expected = p.offset;
                void* p = nullptr;
                Uint32 rc = zepMemAlloc(&p, a.base(), size, 0);
                if (expected == 0) {
                    ASSERT_EQ(rc, ECF_NO_MEMORY);
                    continue;
                }
                ASSERT_EQ(rc, 0u);
                ASSERT_EQ(offsetOf(a.base(), p), expected);
                live[expected] = need;
            } else {
                auto it = live.begin();
                std::advance(it, rng() % live.size());
                // Any size that rounds to the same granules frees the same piece.
                void* p = static_cast<char*>(a.base()) + it->first;
                a.release(p, it->second - static_cast<Uint32>(rng() % 12));
                live.erase(it);
            }
            std::vector<Piece> gaps;
            Uint32 at = 16;
            for (const auto& [offset, size] : live) {
                if (offset > at) gaps.push_back({at, offset - at});
                at = offset + size;
            }
            if (at < 16 + usable) gaps.push_back({at, 16 + usable - at});
            std::vector<Piece> list = a.list();
            std::sort(list.begin(), list.end(),
                      [](const Piece& x, const Piece& y) { return x.offset < y.offset; });
            ASSERT_EQ(list, gaps) << "round " << round << " step " << step;
        }
        for (const auto& [offset, size] : live)
            a.release(static_cast<char*>(a.base()) + offset, size);
        EXPECT_EQ(a.list(), (std::vector<Piece>{{16, usable}}));
    }
}

TEST(Area, ThreadsShareOneArea) {
    Area a(16 + 12 * 4000);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(t);
            std::vector<std::pair<Uint8*, Uint32>> mine;
            for (Uint32 i = 0; i < 3000 * zeptestStress(); ++i) {
                if (mine.size() < 20 && (mine.empty() || rng() % 3)) {
                    Uint32 size = 1 + rng() % 100;
                    void* p = nullptr;
                    if (zepMemAlloc(&p, a.base(), size, 0) != 0) continue;
                    memset(p, t + 1, size);
                    mine.push_back({static_cast<Uint8*>(p), size});
                } else {
                    auto [p, size] = mine.back();
                    mine.pop_back();
                    for (Uint32 k = 0; k < size; ++k)
                        if (p[k] != t + 1) {
                            ++failures;
                            break;
                        }
                    void* q = p;
                    zepMemFree(&q, a.base(), size);
                }
            }
            for (auto [p, size] : mine) {
                void* q = p;
                zepMemFree(&q, a.base(), size);
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(a.list(), (std::vector<Piece>{{16, 12 * 4000}}));
}

TEST(Area, TwoProcessesShareOneAreaInSharedMemory) {
    char name[] = "/tmp/zepareaXXXXXX";
    int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    const Uint32 size = 16 + 12 * 1000;
    ASSERT_EQ(ftruncate(fd, size), 0);
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(base, MAP_FAILED);
    ASSERT_EQ(zepMemAreaInit(base, size), 0u);

    pid_t children[2];
    for (int i = 0; i < 2; ++i)
        children[i] =
            zeptest::spawnHelper("helper_memdbg", {"area", name, "200000", std::to_string(i + 1)});
    for (pid_t child : children) EXPECT_EQ(zeptest::waitExit(child), 0);
    // Everything came back: one node of the usable size.
    EXPECT_EQ(freeList(base), (std::vector<Piece>{{16, 12 * 1000}}));
    EXPECT_EQ(static_cast<const ZEPMemArea*>(base)->lock, 0);
    munmap(base, size);
    unlink(name);
}

}  // namespace
