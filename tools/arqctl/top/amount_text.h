#pragma once

#include <cstdint>
#include <string>

#include "arqctl/core/amount_text.h"

namespace arqctl::top {

// Amounts with their unit, three digits and at most 11 letters, for columns that people look along; bit rates are in
// core/amount_text.h.

// "0/s", "<0.1/s", "0.4/s", "9.9/s", "12/s", "1.23k/s"
std::string PerSecondText(double aSecond);
// "0", "999", "12.3k", "1.23M"
std::string CountText(uint64_t count);
// "12 s", "3 min", "2 h", "5 d": rounded down, so that it never says more than has passed.
std::string AgeText(int64_t ageUs);

// The least of 1, 2, 5, 10, 20, ... that is not below `value`, and at least `least`: the upper end of a plot's scale.
double RoundTop(double value, double least);

} // namespace arqctl::top
