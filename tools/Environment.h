// The environment variables the library reads, checked before the agent starts,
// and the table geometry they give the library applied to the simulated chip.
//
// MAX_LPM_PREFIXTABLE_SRAM_ENTRIES, NHI_TABLE_SIZE and NUMBER_OF_NHI_TILES change
// the geometry the configurator derives. A real chip would then disagree with the
// library and the agent refuses to start; the simulated chip is built for the
// test, so the tool builds it with the same geometry: every prefix table that
// many entries deep, that many NHI tiles of NHI_TABLE_SIZE entries.
#pragma once

#include <vector>

#include "Errors.h"
#include "agent/XpLpmAgent.h"
#include "xdk/xpChipProfiles.h"

namespace xplpm {

// Every problem with the variables for a chip of this profile, each naming its variable.
std::vector<InputError> environmentErrors(const XpXdk::xpChipProfile& profile);

// Throws BadInput with every problem environmentErrors finds.
void checkEnvironment(const XpXdk::xpChipProfile& profile);

// The profile with the geometry the variables give the library. Requires: checkEnvironment passed.
XpXdk::xpChipProfile withEnvironmentGeometry(XpXdk::xpChipProfile profile);

// Throws BadInput when the next-hop table's largest block (NH_MAX_BLOCK_SIZE, or half
// of NH_TABLE_SIZE) cannot hold the widest group the agent asks for with `groups` groups.
void checkGroupWidths(XpLib::Agent::XpLpmAgent& agent, XpLib::U32 groups);

}  // namespace xplpm
