// What a file manager shows of an entry, as one word: what the user should know first where several are true.
//
//     failing      changed here; the store can be reached and refused it
//     sending      changed here; on its way to the store or waiting for it
//     conflict     a version of this or another machine, kept beside the store's
//     folder       a folder, with nothing of the above
//     kept         all of it is here and stays
//     here         all of it is here until room is needed
//     partly       some of it is here
//     online-only  none of it is here
//
// Threads: a plain function.
#pragma once

#include "host/control/HostControl.h"

namespace kestrune::desktop {

const char* stateWord(const host::ItemState& state);

}  // namespace kestrune::desktop
