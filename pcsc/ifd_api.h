// pcscd's handler interface with C linkage, which its header does not say itself.
#pragma once

extern "C" {
#include <ifdhandler.h>
#include <reader.h>
}
