#pragma once

#include <string>
#include <vector>

#include "arqctl/core/doctor_facts.h"
#include "arqctl/core/finding.h"

namespace arqctl {

// One line a finding: verdict, name, what was found, and how to mend it; in front a line that names the proxy, at the end
// one that counts.
std::string DoctorText(const DoctorFacts& facts, const std::vector<Finding>& findings);

// The same as one JSON object, without a line end.
std::string DoctorJson(const DoctorFacts& facts, const std::vector<Finding>& findings);

} // namespace arqctl
