#include "zelfwtrace/report/report_page.h"

#include "zelfwtrace/escape.h"
#include "zelfwtrace/report/page_template.h"
#include "zelfwtrace/report/run_section.h"

#include <algorithm>

namespace {

/// A page is to stay below three megabytes, and to open in a second.
constexpr std::size_t most_dots = 40'000;
constexpr std::size_t most_conversation_bytes = 400'000;
constexpr std::size_t most_sections = 64;
constexpr std::size_t most_listed = 1000;

std::string till_name(const ReportedTill& till) {
    return one_line(till.name.empty() ? till.file : till.name);
}

struct Chosen {
    const ReportedTill* till;
    std::size_t run;
};

std::vector<Chosen> all_runs(const std::vector<ReportedTill>& tills) {
    std::vector<Chosen> all;
    for (const ReportedTill& till : tills) {
        for (std::size_t run = 0; run < till.runs->runs().size(); ++run) {
            all.push_back({&till, run});
        }
    }
    return all;
}

/// Those that are shown in full: the last ones.
std::vector<bool> whole_runs(const std::vector<Chosen>& all) {
    std::vector<bool> is_whole(all.size());
    std::size_t count = 0;
    for (std::size_t i = all.size(); i-- > 0 && count < most_sections;) {
        if (all[i].run >= all[i].till->runs->first_whole()) {
            is_whole[i] = true;
            ++count;
        }
    }
    return is_whole;
}

SectionLimits limits_of(const std::vector<Chosen>& all, const std::vector<bool>& is_whole) {
    std::size_t images = 0, sections = 0;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (is_whole[i]) {
            ++sections;
            images += all[i].till->runs->digests()[all[i].run].records.size();
        }
    }
    return {.dots = most_dots / std::max<std::size_t>(images, 1) + 1,
            .conversation_bytes = most_conversation_bytes / std::max<std::size_t>(sections, 1)};
}

std::string anchor_of(std::size_t number) {
    return "run" + std::to_string(number + 1);
}

void add_till(PageJson& json, const Chosen& chosen) {
    json["till"] = till_name(*chosen.till);
    json["path"] = chosen.till->name.empty() ? "" : one_line(chosen.till->file);
    json["is_damaged"] = chosen.till->is_damaged;
    const std::size_t runs = chosen.till->runs->runs().size();
    json["number"] = "run " + grouped(chosen.run + 1) + " of " + grouped(runs);
    json["is_one_of_many"] = runs > 1;
}

std::string title_of(const std::vector<ReportedTill>& tills, std::size_t runs) {
    const auto is_named = [](const ReportedTill& till) { return !till.name.empty(); };
    if (tills.size() == 1) {
        return is_named(tills.front()) ? till_name(tills.front())
                                       : file_name_of(tills.front().file);
    }
    const char* const thing = std::all_of(tills.begin(), tills.end(), is_named) ? "till" : "file";
    return counted_words(tills.size(), thing) + ", " + counted_words(runs, "run");
}

}  // namespace

std::string report_page(const std::vector<ReportedTill>& tills, zelf::TimeZone zone) {
    const std::vector<Chosen> all = all_runs(tills);
    const std::vector<bool> is_whole = whole_runs(all);
    const SectionLimits limits = limits_of(all, is_whole);
    PageJson model = {{"title", title_of(tills, all.size())},
                      {"has_overview", all.size() > 1},
                      {"overview", PageJson::array()},
                      {"sections", PageJson::array()}};
    const std::size_t first_listed = all.size() - std::min(all.size(), most_listed);
    if (first_listed > 0) {
        model["not_listed"] = grouped(first_listed);
    }
    for (std::size_t i = first_listed; i < all.size(); ++i) {
        const Run& run = all[i].till->runs->runs()[all[i].run];
        const RunDigest& digest = all[i].till->runs->digests()[all[i].run];
        PageJson row = run_head(run, digest, zone);
        add_till(row, all[i]);
        row["href"] = is_whole[i] ? "#" + anchor_of(i) : "";
        model["overview"].push_back(std::move(row));
        if (is_whole[i]) {
            PageJson section = run_section(run, digest, zone, anchor_of(i), limits);
            add_till(section, all[i]);
            model["sections"].push_back(std::move(section));
        }
    }
    return filled_page(PageKind::report, model);
}
