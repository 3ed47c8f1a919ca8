// pcscd's handler interface with C linkage, which its header does not say itself. pcscd's headers
// define macros with names of the contract's, so the contract's own headers come first.
#pragma once

#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"

extern "C" {
#include <ifdhandler.h>
#include <reader.h>
}
