// Which build this is: the project's version and the commit it was built from ("1.0.0+8274a62"),
// or "unknown" in place of the commit where the sources are no checkout.
#pragma once

namespace zelta {

const char* buildVersion();

}  // namespace zelta
