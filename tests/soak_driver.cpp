// The main loop on a fast clock: every sleep is over at once, and both clocks jump now and then.
// Before every pass files arrive; reloads come in storms, and rescans as the clock has it.
//
// soak_driver TREE PASSES   TREE lies below /mnt/main. Prints resident memory and descriptors after
//                           the first hundred passes and at the end; fails when they have grown.
#include "base/diagnostics.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
#include "service/main_loop.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr long warm_up = 100;           // passes
constexpr size_t slack_kib = 256;       // one growth of the heap
constexpr uint64_t second_us = 1000000; // of the fast clock

std::string tree;
long passes_wanted = 0;
long passes = 0;
uint64_t now_us = 0;
long wall_s = 1700000000;

struct resources {
    size_t resident_kib;
    size_t descriptors;
};

resources used() {
    size_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    const fs::directory_iterator all("/proc/self/fd");
    return {resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024,
            static_cast<size_t>(std::distance(begin(all), end(all)))};
}

resources after_warm_up{};

void arrive(const char *folder) {
    const std::string place = tree + "/Upload/" + folder + "/";
    const std::string name = "item" + std::to_string(passes) + ".mxf";
    std::ofstream(place + name) << "media " << passes;
    if (passes % 3 == 0)
        return;
    fs::create_directories(place + "." + name + ".metadir");
    std::ofstream(place + "." + name + ".metadir/metadata") << "title=" << passes << "\nno value\n";
}

// What happens between two passes.
void live() {
    if (++passes == warm_up)
        after_warm_up = used();
    if (passes >= passes_wanted)
        stop_count = 1;
    for (const char *folder : {"one", "two"})
        arrive(folder);
    if (passes % 50 == 0)
        fs::remove_all(tree + "/Play/ARCHIVE");
    if (passes % 7 == 0)
        for (int storm = 0; storm < 20; ++storm)
            kill(getpid(), SIGHUP);
    if (passes % 500 == 0)
        now_us += 3600 * second_us;
    wall_s += passes % 2 == 0 ? -86400 : 86460;
}

} // namespace

uint64_t monotonic_clock_us() {
    return now_us;
}

extern "C" time_t time(time_t *result) noexcept {
    if (result != nullptr)
        *result = wall_s;
    return wall_s;
}

extern "C" unsigned int sleep(unsigned int seconds) {
    now_us += seconds * second_us;
    if (next_check_us <= now_us)
        live();
    return 0;
}

int main(int argc, char **argv) {
    if (argc != 3)
        return 2;
    tree = argv[1];
    passes_wanted = strtol(argv[2], nullptr, 10);
    configuration_path = tree + "/configuration.toml";
    for (const char *folder : {"one", "two"})
        fs::create_directories(tree + "/Upload/" + folder);
    std::ofstream(configuration_path)
        << "[event1]\n\"watch path\" = \"" << tree << "/Upload/one\"\n"
        << "\"match pattern\" = [\"\\\\.mxf$\", \"(\"]\n\"target file\" = \"x\"\n"
        << "[event2]\n\"watch path\" = \"" << tree << "/Upload/two\"\n"
        << "\"match pattern\" = \"\\\\.mxf$\"\n\"target file\" = \"" << tree << "/Play/two\"\n";
    
    util_check_and_unmask_common_signals();
    install_signal_handlers();
    configuration = build_directory_configuration(tree);
    run_main_loop(tree);
    const resources end = used();
    std::cout << passes << " passes; resident memory " << after_warm_up.resident_kib
              << " KiB after " << warm_up << ", " << end.resident_kib
              << " KiB at the end; descriptors " << after_warm_up.descriptors << " and "
              << end.descriptors << "\n";
    const bool has_delivered = fs::exists(tree + "/Play/one") && fs::exists(tree + "/Play/two");
    return has_delivered && end.descriptors == after_warm_up.descriptors &&
                   end.resident_kib <= after_warm_up.resident_kib + slack_kib
               ? 0
               : 1;
}
