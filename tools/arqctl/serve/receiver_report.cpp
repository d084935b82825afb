#include "arqctl/serve/receiver_report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <utility>

#include "arqctl/core/clean_text.h"

namespace arqctl {

namespace {

constexpr uint64_t REPORT_VERSION = 1;
constexpr int DEEPEST_REPORT = 8;

struct ReportText {
    const char* name;
    std::string ReceiverReport::*text;
    size_t longest; // bytes
};
constexpr std::array REPORT_TEXTS {
    ReportText { "name", &ReceiverReport::name, ReceiverReport::LONGEST_NAME },
    ReportText { "channel", &ReceiverReport::channel, ReceiverReport::LONGEST_TEXT },
    ReportText { "stream", &ReceiverReport::stream, ReceiverReport::LONGEST_TEXT },
    ReportText { "proxy", &ReceiverReport::proxy, ReceiverReport::LONGEST_TEXT },
};

template <typename Fields>
auto FieldNamed(const Fields& fields, const std::string& name)
{
    const auto place
        = std::find_if(fields.begin(), fields.end(), [&](const auto& field) { return field.name == name; });
    return place == fields.end() ? nullptr : &*place;
}

// Takes the values as the reader meets them, so that nothing of a stranger's is built up. Each function returns whether
// to read on; their names are the library's.
class ReportReader {
public:
    using number_integer_t = nlohmann::json::number_integer_t;
    using number_unsigned_t = nlohmann::json::number_unsigned_t;
    using number_float_t = nlohmann::json::number_float_t;
    using string_t = nlohmann::json::string_t;
    using binary_t = nlohmann::json::binary_t;

    const ReceiverReport& Report() const { return m_report; }
    const std::string& Problem() const { return m_problem; }

    bool IsWhole()
    {
        for (const char* needed : { "arqrx", "name", "run_s" })
            RequireField(needed);
        for (const ReportCount& field : REPORT_COUNTS)
            RequireField(field.name);
        if (m_problem.empty() && m_report.name.empty())
            m_problem = "its name is empty";
        return m_problem.empty();
    }

    bool null() { return !IsKnown() || WrongKind(); }
    bool boolean(bool value)
    {
        if (m_nDepth != 1 || m_field != "final")
            return !IsKnown() || WrongKind();
        m_report.isFinal = value;
        return Note();
    }
    bool number_integer(number_integer_t) { return !IsKnown() || Fail("is negative"); }
    bool number_unsigned(number_unsigned_t value)
    {
        if (m_nDepth == 1 && m_field == "arqrx")
            return value == REPORT_VERSION ? Note() : Fail("is a version that this program does not know");
        const ReportCount* count = m_nDepth == 1 ? FieldNamed(REPORT_COUNTS, m_field) : nullptr;
        if (count == nullptr)
            return TakeReading(static_cast<double>(value));
        if (value > MOST_COUNT)
            return Fail("is too large");
        m_report.*(count->count) = value;
        return Note();
    }
    bool number_float(number_float_t value, const string_t&) { return TakeReading(value); }
    bool string(string_t& value)
    {
        const ReportText* text = m_nDepth == 1 ? FieldNamed(REPORT_TEXTS, m_field) : nullptr;
        if (text == nullptr)
            return !IsKnown() || WrongKind();
        m_report.*(text->text) = CleanText(value, text->longest);
        return Note();
    }
    bool binary(binary_t&) { return false; }
    bool key(string_t& name)
    {
        if (m_nDepth == 1)
            m_field = name;
        return true;
    }
    bool start_object(size_t)
    {
        if (m_nDepth == 1 && IsKnown())
            return WrongKind();
        return ++m_nDepth <= DEEPEST_REPORT || Nested();
    }
    bool start_array(size_t)
    {
        if (m_nDepth == 0)
            return false;
        return start_object(0);
    }
    bool end_object() { return --m_nDepth >= 0; }
    bool end_array() { return --m_nDepth >= 0; }
    template <typename Error>
    bool parse_error(size_t, const std::string&, const Error&)
    {
        return false;
    }

private:
    bool IsKnown() const
    {
        if (m_nDepth != 1)
            return m_nDepth == 0; // a value alone is no report
        return m_field == "arqrx" || m_field == "final" || FieldNamed(REPORT_TEXTS, m_field) != nullptr
            || FieldNamed(REPORT_COUNTS, m_field) != nullptr
            || FieldNamed(REPORT_READINGS, m_field) != nullptr;
    }

    bool TakeReading(double value)
    {
        const ReportReading* reading = m_nDepth == 1 ? FieldNamed(REPORT_READINGS, m_field) : nullptr;
        if (reading == nullptr)
            return !IsKnown() || WrongKind();
        if (!(value >= 0))
            return Fail("is negative");
        if (value > reading->most)
            return Fail("is too large");
        m_report.*(reading->value) = value;
        return Note();
    }

    bool Note() { return m_seen.insert(m_field).second || Fail("stands there twice"); }
    bool WrongKind() { return Fail("is of another kind"); }
    bool Nested()
    {
        m_problem = "it is nested too deep";
        return false;
    }
    bool Fail(const char* why)
    {
        if (m_nDepth > 0)
            m_problem = m_field + " " + why; // only fields that are known get here
        return false;
    }
    void RequireField(const char* name)
    {
        if (m_problem.empty() && m_seen.count(name) == 0)
            m_problem = std::string(name) + " is missing";
    }

    ReceiverReport m_report;
    std::string m_problem;
    std::string m_field; // whose value comes next, of the outermost object
    std::set<std::string> m_seen;
    int m_nDepth = 0;
};

double Thousandths(double value)
{
    constexpr double THOUSAND = 1000;
    return std::round(value * THOUSAND) / THOUSAND;
}

} // namespace

bool ParseReceiverReport(std::string_view datagram, ReceiverReport& report, std::string& problem)
{
    if (datagram.size() > LONGEST_REPORT) {
        problem = "it is longer than 1400 bytes";
        return false;
    }
    ReportReader reader;
    const bool isRead = nlohmann::json::sax_parse(datagram.begin(), datagram.end(), &reader);
    if (!isRead || !reader.IsWhole()) {
        problem = reader.Problem().empty() ? "it is no JSON object" : reader.Problem();
        return false;
    }
    report = reader.Report();
    return true;
}

nlohmann::ordered_json ReportObject(const ReporterView& reporter)
{
    const ReceiverReport& report = *reporter.report;
    nlohmann::ordered_json object { { "name", reporter.label } };
    for (const ReportText& field : REPORT_TEXTS) {
        const std::string& text = report.*field.text;
        if (field.text != &ReceiverReport::name && !text.empty())
            object[field.name] = text;
    }
    for (const ReportCount& field : REPORT_COUNTS)
        object[field.name] = report.*field.count;
    for (const ReportReading& field : REPORT_READINGS) {
        if (report.*field.value >= 0)
            object[field.name] = Thousandths(report.*field.value);
    }
    if (report.isFinal)
        object["final"] = true;
    object["address"] = reporter.address;
    object["age_s"] = Thousandths(static_cast<double>(reporter.ageUs) / 1e6);
    object["state"] = NameOf(reporter.state);
    object["restarts"] = reporter.restarts;
    return object;
}

} // namespace arqctl
