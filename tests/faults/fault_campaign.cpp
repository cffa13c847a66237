// Injects faults into every transfer of a reference update, and of a list, reset and read-back run,
// and kills updates at random moments. See docs/fault-campaign.md.
#include "campaign.h"
#include "run/hidden_devices.h"
#include "warm_child.h"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <string>

namespace {

constexpr const char* memory_directory = "/dev/shm";
constexpr int exit_wrong_arguments = 2;

constexpr char usage[] =
    "Usage: fault_campaign [option ...]\n"
    "  --count N     as many injections, chosen by the seed (0 or not given: all, unless --kills)\n"
    "  --kills N     updates that are killed at a random moment\n"
    "  --seed S      of the choice and the moments (1)\n"
    "  --slice I/N   of the chosen cases only the Ith of N parts, from 0\n"
    "  --only TEXT   injections whose text contains this, such as stall or update-a/printer\n"
    "  --jobs J      cases side by side (32); they mostly sleep\n"
    "  --repeat CASE this case alone, as a violation names it; keeps its files when it fails\n"
    "  --program P   another build of the program\n"
    "  --virtual     in virtual time: no wait lasts, and a case is one run, exactly. Use few jobs\n"
    "  --schedules N each case under as many orders of the threads (1: the plain one)\n"
    "  --family F    faults (if not given), kills, signals (both at each transfer), clock,\n"
    "                pairs (of faults of one device), late (answers that meet the next command),\n"
    "                unasked (status reports), or all of these, in as many rounds as --count "
    "takes\n"
    "  --shrink      take from a case with a violation what it does not need for one\n"
    "  --until-found end with the first violation\n"
    "  --pin         keep each job on one processor: faster by a third, and little else of the "
    "machine\n"
    "                gets a turn (in virtual time)\n"
    "  --start-each  start each run by itself, not as a fork of a program that is loaded already\n"
    "  --aim-past N  at the transfer N behind the one that an injection names, to see what is "
    "said\n"
    "                when faults do not strike\n"
    "Exit code 1 when there was a violation, or when most faults of a target (event and kind)\n"
    "did not strike.\n";

const std::map<std::string, Family> families = {
    {"faults", Family::faults},   {"kills", Family::kills}, {"signals", Family::signals},
    {"clock", Family::clock},     {"pairs", Family::pairs}, {"late", Family::late},
    {"unasked", Family::unasked}, {"all", Family::all}};

const std::map<std::string, bool CampaignSettings::*> flags = {
    {"--virtual", &CampaignSettings::virtual_time},
    {"--shrink", &CampaignSettings::shrink},
    {"--until-found", &CampaignSettings::until_found},
    {"--start-each", &CampaignSettings::start_each},
    {"--pin", &CampaignSettings::pin}};

/// Takes the arguments, each with a value, into the settings; false when one is wrong.
bool parse(int argc, char** argv, CampaignSettings& settings) {
    const auto number = [](const std::string& text) {
        return std::strtoul(text.c_str(), nullptr, 10);
    };
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (const auto flag = flags.find(name); flag != flags.end()) {
            settings.*flag->second = true;
            --i;
            continue;
        }
        if (i + 1 == argc) {
            return false;
        }
        const std::string value = argv[i + 1];
        if (name == "--count") {
            settings.count = number(value);
        } else if (name == "--kills") {
            settings.kills = number(value);
        } else if (name == "--seed") {
            settings.seed = static_cast<std::uint32_t>(number(value));
        } else if (name == "--only") {
            settings.only = value;
        } else if (name == "--jobs") {
            settings.jobs = static_cast<unsigned int>(number(value));
        } else if (name == "--repeat") {
            settings.repeat = value;
        } else if (name == "--program") {
            settings.program = value;
        } else if (name == "--aim-past") {
            settings.aim_past = static_cast<int>(number(value));
        } else if (name == "--schedules") {
            settings.schedules = static_cast<std::uint32_t>(number(value));
        } else if (name == "--family" && families.contains(value)) {
            settings.family = families.at(value);
        } else if (name == "--slice" && value.find('/') != std::string::npos) {
            settings.slice = number(value);
            settings.slices = number(value.substr(value.find('/') + 1));
        } else {
            return false;
        }
    }
    const bool needs_virtual_time = settings.schedules > 1 || settings.family == Family::clock ||
                                    settings.family == Family::all;
    return settings.jobs > 0 && settings.slice < settings.slices &&
           (settings.virtual_time ? settings.kills == 0 : !needs_virtual_time);
}

}  // namespace

int main(int argc, char** argv) {
    CampaignSettings settings;
    if (!parse(argc, argv, settings)) {
        std::fputs(usage, stderr);
        return exit_wrong_arguments;
    }
    try {
        if (geteuid() == 0) {
            zelfsim::hide_devices_if_any();
        }
        if (settings.virtual_time) {
            fix_addresses();
            // These runs can wait. What runs beside them may be in real time.
            constexpr int behind_others = 10;
            static_cast<void>(setpriority(PRIO_PROCESS, 0, behind_others));
            if (settings.pin) {
                pin_warm_children();
            }
            // Most of a case would be the disk's. Where the caller names no place, memory will do.
            if (std::filesystem::is_directory(memory_directory)) {
                setenv("TMPDIR", memory_directory, 0);
            }
        }
        const auto begin = std::chrono::steady_clock::now();
        Campaign campaign(settings);
        const bool is_sound = campaign.run();
        campaign.print_summary();
        const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
        std::printf("%.0f seconds, %.0f cases a second\n", duration.count(),
                    campaign.count() / duration.count());
        return is_sound ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "fault_campaign: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
