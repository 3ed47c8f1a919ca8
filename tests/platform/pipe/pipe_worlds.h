// The implementations that the conformance suite runs on.
#pragma once

#include "tests/platform/pipe/pipe_conformance.h"

namespace zelta::test {

std::unique_ptr<PipeWorld> makeSystemPipeWorld();
std::unique_ptr<PipeWorld> makeSerialisingPipeWorld();

}  // namespace zelta::test
