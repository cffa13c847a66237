#include "zelfwtrace/report/page_template.h"

#include "page_files.h"

#include <kainjow/mustache.hpp>
#include <stdexcept>

namespace {

using kainjow::mustache::data;
using kainjow::mustache::mustache;

data template_data(const PageJson& json) {
    if (json.is_object()) {
        data all{data::type::object};
        for (const auto& [key, value] : json.items()) {
            all.set(key, template_data(value));
        }
        return all;
    }
    if (json.is_array()) {
        data all{data::type::list};
        for (const PageJson& value : json) {
            all.push_back(template_data(value));
        }
        return all;
    }
    if (json.is_boolean()) {
        return data{json.get<bool>()};
    }
    // An empty text is no text: a section of its name is left out.
    const bool has_text = json.is_string() && !json.get_ref<const std::string&>().empty();
    return has_text ? data{json.get<std::string>()} : data{data::type::bool_false};
}

}  // namespace

std::string filled_page(PageKind kind, const PageJson& model) {
    mustache page{std::string(kind == PageKind::report ? page_files::report : page_files::fleet)};
    if (!page.is_valid()) {
        throw std::logic_error("the page's markup: " + page.error_message());
    }
    data all = template_data(model);
    all.set("style", std::string(page_files::style));
    return page.render(all);
}
