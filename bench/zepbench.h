// zepbench.h - what zep's benchmark programs print after Google Benchmark's table: each zep case
// beside each peer of the same case, as a ratio of medians. A case is the part of a benchmark's
// name before the first '/'; zep's runs are named "case/zep...", the peers' "case/peer:...". A zep
// run without a peer that counts items or bytes is listed with its rate instead.
#ifndef ZEPBENCH_H
#define ZEPBENCH_H

#include <benchmark/benchmark.h>
#include <stdio.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <vector>

class ZepRatioReporter : public benchmark::ConsoleReporter {
public:
    // The time compared: processor time per operation (which the machine's other tenants
    // disturb less), except for runs of several threads, which wait for each other and are
    // compared by the wall clock; or the wall clock for every run.
    enum Clock { kProcessor, kWall };
    explicit ZepRatioReporter(Clock clock = kProcessor) : clock_(clock) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median") continue;
            std::string name = r.benchmark_name();
            for (const char* cut : {"_median", "/repeats:", "/real_time"}) {
                const size_t at = name.find(cut);
                if (at != std::string::npos) name.erase(at, name.find('/', at + 1) - at);
            }
            const bool wall = clock_ == kWall || r.threads > 1;
            static const double kNs[] = {1, 1e3, 1e6, 1e9};  // per benchmark::TimeUnit
            ns_[name] = (wall ? r.GetAdjustedRealTime() : r.GetAdjustedCPUTime()) *
                        kNs[std::min<int>(r.time_unit, 3)];
            for (const char* counter : {"items_per_second", "bytes_per_second"}) {
                auto c = r.counters.find(counter);
                if (c != r.counters.end()) rate_[name] = {c->second.value, counter[0] == 'b'};
            }
            if (std::find(order_.begin(), order_.end(), name) == order_.end())
                order_.push_back(name);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        printf("\nratios, zep / peer (medians; %s; below 1: zep is faster)\n",
               clock_ == kWall ? "wall time per operation"
                               : "processor time per operation, wall time with threads");
        for (const std::string& zep : order_) {
            const size_t slash = zep.find('/');
            if (slash == std::string::npos || zep.compare(slash + 1, 3, "zep") != 0) continue;
            const std::string peers = zep.substr(0, slash) + "/peer:";
            bool any = false;
            for (const std::string& peer : order_) {
                if (peer.rfind(peers, 0) != 0) continue;
                any = true;
                printf("  %-52s %10.2f ns  vs %-40s %10.2f ns  ratio %.2f\n", zep.c_str(), ns_[zep],
                       peer.substr(slash + 1).c_str(), ns_[peer], ns_[zep] / ns_[peer]);
            }
            auto rate = rate_.find(zep);
            if (!any && rate != rate_.end())
                printf("  %-52s %10.3f %s\n", zep.c_str(),
                       rate->second.first / (rate->second.second ? 1e9 : 1e6),
                       rate->second.second ? "GB/s" : "M per second");
        }
    }

private:
    Clock clock_;
    std::map<std::string, double> ns_;
    std::map<std::string, std::pair<double, bool>> rate_;  // per second; bytes or items
    std::vector<std::string> order_;
};

// The main of a benchmark program: Google Benchmark's own flags, `setup` (for cases registered
// at run time), every case, then the ratios. `threaded` makes this a threaded process first, as
// the library's callers are: the C library runs a mutex without its locked instructions while a
// process has one thread only.
inline int zepBenchMain(int argc, char** argv, ZepRatioReporter::Clock clock, bool threaded = false,
                        void (*setup)() = nullptr) {
    if (threaded) std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (setup) setup();
    ZepRatioReporter reporter(clock);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

#endif
