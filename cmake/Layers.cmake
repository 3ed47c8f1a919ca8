# Which layer may include which. A layer is a folder with everything below it; the longest matching
# name counts. `cmake -P cmake/CheckLayers.cmake` checks the sources against this table.
#
# layer: the layers whose headers it may include besides its own
set(ZELTA_LAYERS
  "contract:"
  "framework:"
  "platform:"
  "logging:platform"
  "diagnostics:logging platform"
  "driver/request:diagnostics framework contract platform"
  "reader:driver/request diagnostics contract platform"
  "agent_link:reader driver/request diagnostics contract platform"
  "driver/device:agent_link reader driver/request diagnostics framework contract platform"
  "driver/module:driver/device driver/request diagnostics framework contract platform"
  "host:framework contract platform"
  "pcsc:host framework contract platform"
  "agent:contract platform"
  "tools:contract platform logging"
)

# Headers made by the build, in no folder of the sources.
set(ZELTA_GENERATED_HEADERS zelta_build_version.h)

# Headers in angle brackets that end in .h or .hpp belong to the operating system or to a library.
# These folders and files may include any; the others only those in the list after it. In tools/,
# each is the only user of its calls: the terminal, the log folder's watch, Windows' installer.
set(ZELTA_SYSTEM_PLACES
  platform agent/platform tools/setup
  tools/logs/log_folder tools/logs/main tools/logs/prune
  tools/status/main tools/status/pcsc_view
  tools/trace/agent_lines tools/trace/trace_main
)
set(ZELTA_LIBRARY_HEADERS
  "logging:fmt/.*"
  "pcsc:ifdhandler|reader"
  "agent/card:libcacard|nss|cert|pk11pub|prerror|secerr|winscard"
  "agent/control:nlohmann/json"
  "agent/library:zelta/agent"
  "agent/program:fmt/.*|CLI/CLI"
  "agent/trace:nlohmann/json"
  "tools/logs:fmt/.*|nlohmann/json"
  "tools/trace:nlohmann/json"
)
