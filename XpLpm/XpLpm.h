// The LPM model: value types, prefixes, configuration, status and commands.
#pragma once

#include "XpLpm/Config.h"
#include "XpLpm/LpmPrefix.h"
#include "XpLpm/NhiInfo.h"
#include "XpLpm/PrefixTable.h"
#include "XpLpm/Status.h"
#include "XpLpm/SubTrie.h"
#include "XpLpm/XpLpmTypes.h"
