#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace arqrx {

// Help that fits a terminal of 80 columns.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_group(
        std::string group, bool isPositional, std::vector<const CLI::Option*> options) const override;
};

} // namespace arqrx
