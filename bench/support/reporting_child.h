#pragma once

#include <string>
#include <vector>

#include "child.h"

// A program that prints a JSON object a line on its standard output, which goes to a file in `folder`.
class ReportingChild {
public:
    ReportingChild(const std::string& folder, const std::vector<std::string>& arguments);

    Child& Process() { return m_child; }
    // The number under `name` in its last object. Gives up when there is none within 5 s, unless `otherwise` is given.
    double Last(const std::string& name) const;
    double Last(const std::string& name, double otherwise) const;
    // Waits until `name` is at least `value`, 5 s at most; whether it came to that.
    bool WaitFor(const std::string& name, double value) const;

private:
    std::string LastObject() const;

    std::string m_path;
    Child m_child;
};
