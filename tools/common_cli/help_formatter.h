#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace common {

// Help that fits a terminal of 80 columns.
class HelpFormatter : public CLI::Formatter {
public:
    // The ways to call the program, one a line: "arqrx [options] PROXY". Those of its commands are made of their options.
    explicit HelpFormatter(std::vector<std::string> usage);

    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_group(
        std::string group, bool isPositional, std::vector<const CLI::Option*> options) const override;
    std::string make_subcommand(const CLI::App* command) const override;
    std::string make_footer(const CLI::App* app) const override;

private:
    const std::vector<std::string> m_usage;
};

} // namespace common
