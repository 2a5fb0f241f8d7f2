// Trees and listings beside what a user would run instead, in one run:
//  - zepDirectoryCopy of a tree of 10,000 files (random sizes below 1 MiB) in 1,000 directories
//    against "cp -r"; then the recursive delete of each copy against "rm -rf" (two rounds in
//    opposite orders, times summed);
//  - ZEPDirectoryListing::begin and end of a directory of 10,000 entries against opendir, readdir
//    and stat of each entry, keeping the names (the median of 21 runs each).
// ZEP_BENCH_FILES and ZEP_BENCH_MAX_SIZE scale the tree down for a quick look. The page cache is
// warmed with the source before the first copy, and every timed step starts after a sync.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "zep.h"

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int run(const std::vector<const char*>& argv) {
    pid_t pid = fork();
    if (pid == 0) {
        execvp(argv[0], const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The same shape as the tests' trees: each directory the child of an earlier one, ten to a
// parent.
void makeTree(const std::string& root, int files, int dirs, size_t maxSize) {
    std::mt19937_64 rng(42);
    std::vector<std::string> d{root};
    mkdir(root.c_str(), 0755);
    for (int i = 0; i < dirs; ++i) {
        d.push_back(d[i / 10] + "/d" + std::to_string(i));
        mkdir(d.back().c_str(), 0755);
    }
    std::vector<char> data(maxSize + 4096);
    for (char& c : data) c = static_cast<char>(rng());
    for (int j = 0; j < files; ++j) {
        std::string f = d[1 + j % dirs] + "/f" + std::to_string(j);
        int fd = open(f.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        size_t size = rng() % maxSize;
        if (fd < 0 || write(fd, data.data() + rng() % 4096, size) != static_cast<ssize_t>(size))
            perror(f.c_str()), exit(1);
        close(fd);
    }
}

template <class F>
double timed(F f) {
    sync();
    double t = now();
    f();
    return now() - t;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main() {
    int files = getenv("ZEP_BENCH_FILES") ? atoi(getenv("ZEP_BENCH_FILES")) : 10000;
    size_t maxSize = getenv("ZEP_BENCH_MAX_SIZE") ? atol(getenv("ZEP_BENCH_MAX_SIZE")) : 1 << 20;
    int dirs = std::max(1, files / 10);
    char tmpl[] = "/tmp/zepbenchXXXXXX";
    std::string base = mkdtemp(tmpl);
    std::string src = base + "/src", zcopy = base + "/zep", ccopy = base + "/cp";

    makeTree(src, files, dirs, maxSize);
    run({"cp", "-r", src.c_str(), ccopy.c_str(), nullptr});  // warms the cache with the source
    run({"rm", "-rf", ccopy.c_str(), nullptr});

    // Two rounds, the second in the other order, so that neither side always meets the disk
    // right after the other's writes; the sums are compared.
    Uint32 rc = 0;
    double zc = 0, cc = 0, zd = 0, cd = 0;
    ZEPDirectoryDeleteParam del;
    del.path = zcopy.c_str();
    del.options = ZEP_DIR_DELETE_CONTENTS;
    for (int round = 0; round < 2; ++round) {
        auto zepCopy = [&] {
            zc += timed([&] { rc |= zepDirectoryCopy(src.c_str(), zcopy.c_str()); });
        };
        auto cpCopy = [&] {
            cc += timed([&] { rc |= run({"cp", "-r", src.c_str(), ccopy.c_str(), nullptr}); });
        };
        auto zepDelete = [&] { zd += timed([&] { rc |= zepDirectoryDelete(&del); }); };
        auto rmDelete = [&] {
            cd += timed([&] { rc |= run({"rm", "-rf", ccopy.c_str(), nullptr}); });
        };
        if (round == 0)
            zepCopy(), cpCopy(), zepDelete(), rmDelete();
        else
            cpCopy(), zepCopy(), rmDelete(), zepDelete();
    }
    run({"rm", "-rf", src.c_str(), nullptr});

    std::string flat = base + "/flat";
    mkdir(flat.c_str(), 0755);
    for (int i = 0; i < 10000; ++i)
        close(open((flat + "/entry" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0644));
    std::vector<double> zl, pl;
    size_t count = 0;
    for (int round = 0; round < 21; ++round) {
        double t = now();
        ZEPDirectoryListing l;
        ZEPDirectoryListingParam p;
        p.path = flat.c_str();
        p.typeMask = 0xC000;
        rc |= l.begin(&p);
        count = l.getNumberOfFiles();
        rc |= l.end();
        zl.push_back(now() - t);

        t = now();
        std::vector<std::string> names;
        DIR* d = opendir(flat.c_str());
        while (dirent* e = readdir(d)) {
            struct stat st;
            std::string full = flat + "/" + e->d_name;
            if (stat(full.c_str(), &st) == 0 && (st.st_mode & 0xC000)) names.push_back(e->d_name);
        }
        closedir(d);
        pl.push_back(now() - t);
    }
    run({"rm", "-rf", base.c_str(), nullptr});

    printf("tree: %d files in %d directories, sizes below %zu bytes\n", files, dirs, maxSize);
    printf("copy    zepDirectoryCopy %8.3f s   cp -r  %8.3f s   ratio %.2f\n", zc, cc, zc / cc);
    printf("delete  recursive delete %8.3f s   rm -rf %8.3f s   ratio %.2f\n", zd, cd, zd / cd);
    printf(
        "listing begin+end        %8.3f ms  opendir/readdir/stat %8.3f ms   ratio %.2f (%zu "
        "entries)\n",
        median(zl) * 1e3, median(pl) * 1e3, median(zl) / median(pl), count);
    if (rc != 0) printf("a step failed: %x\n", rc);
    return rc != 0;
}
