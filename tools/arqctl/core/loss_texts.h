#pragma once

#include <string>

#include "arqctl/core/loss_settings.h"
#include "arqctl/core/loss_watch.h"

namespace arqctl {

// What was found, as one sentence without an end: "on: 12 of 1200 packets were withheld".
std::string LossText(const LossFinding& finding);

// "1 packet withheld, 100 pass (0.99 %)", "2 packets withheld, 51 to 151 pass at random (1.94 %)".
std::string LossSettingsText(const LossSettings& settings);

// What to do so that it can be known; "" where nothing is in doubt.
std::string LossDoubtAdvice(LossDoubt doubt);

} // namespace arqctl
