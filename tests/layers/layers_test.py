"""The check of the layers passes on the sources as they are and finds each kind of breach."""

import os
import pathlib
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["ZELTA_SOURCE_DIR"])


def check(folder):
    return subprocess.run(
        [os.environ["ZELTA_CMAKE"], f"-DSOURCE={folder}", "-P", SOURCE / "cmake/CheckLayers.cmake"],
        capture_output=True, text=True, check=False)


class Layers(unittest.TestCase):
    def check_source(self, path, line):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder, path)
            file.parent.mkdir(parents=True)
            file.write_text(f"#pragma once\n\n{line}\n")
            return check(folder)

    def assert_refused(self, path, line, text):
        result = self.check_source(path, line)
        self.assertNotEqual(result.returncode, 0, result.stderr)
        self.assertIn(f"{path}: {text}", result.stderr)

    def test_the_sources_keep_to_the_table(self):
        result = check(SOURCE)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertRegex(result.stderr, r"\d{3} sources keep to the layers")

    def test_include_that_the_table_allows_passes(self):
        for path, line in (("reader/reader.h", '#include "driver/request/io_request.h"'),
                           ("reader/reader.h", '#include "reader/atr.h"'),
                           ("reader/reader.h", "#include <vector>"),
                           ("logging/line_format.cpp", "#include <fmt/format.h>"),
                           ("agent/platform/log_linux.cpp", "#include <poll.h>"),
                           ("tools/logs/log_folder.cpp", "#include <poll.h>"),
                           ("tools/logs/view.cpp", "#include <fmt/format.h>"),
                           ("driver/module/start_banner.cpp", '#include "zelta_build_version.h"'),
                           ("platform/sync/event.h", "#if defined(_WIN32)")):
            with self.subTest(path=path, line=line):
                result = self.check_source(path, line)
                self.assertEqual(result.returncode, 0, result.stderr)

    def test_include_of_a_layer_above_is_refused(self):
        for path, header in (("reader/reader.h", "agent_link/pipe_reader.h"),
                             ("reader/reader.h", "host/driver_host.h"),
                             ("reader/reader.h", "driver/device/my_device.h"),
                             ("driver/request/io_request.h", "driver/device/my_device.h"),
                             ("platform/sync/event.h", "contract/bytes.h"),
                             ("agent/link/connector.h", "agent_link/pipe_pair.h")):
            with self.subTest(path=path, header=header):
                layer = path.rpartition("/")[0]
                layer = layer if layer.startswith("driver/") else layer.split("/")[0]
                self.assert_refused(path, f'#include "{header}"',
                                    f"{layer}/ may not include {header}")

    def test_header_of_the_operating_system_is_refused_outside_platform(self):
        self.assert_refused("reader/reader.h", "#include <poll.h>", "<poll.h> belongs to platform/")
        self.assert_refused("agent/link/connector.cpp", "#include <sys/socket.h>",
                            "<sys/socket.h> belongs to platform/")
        self.assert_refused("reader/reader.h", "#  include <nlohmann/json.hpp>",
                            "<nlohmann/json.hpp> belongs to platform/")
        self.assert_refused("pcsc/channel.cpp", "#include <winscard.h>",
                            "<winscard.h> belongs to platform/")
        self.assert_refused("tools/logs/record.cpp", "#include <unistd.h>",
                            "<unistd.h> belongs to platform/")
        self.assert_refused("tools/trace/agent_lines_text.cpp", "#include <poll.h>",
                            "<poll.h> belongs to platform/")

    def test_header_of_the_operating_system_in_quotation_marks_is_refused(self):
        self.assert_refused("reader/reader.h", '#include "windows.h"',
                            "windows.h belongs to no layer")

    def test_source_between_the_layers_is_refused(self):
        self.assert_refused("driver/driver.cpp", "#include <vector>", "belongs to no layer")

    def test_question_for_the_operating_system_is_refused_outside_platform(self):
        for macro in "_WIN32", "__linux__", "__unix__", "__MINGW32__", "_MSC_VER":
            self.assert_refused("driver/device/my_device.cpp", f"#ifdef {macro}",
                                f"asks for the operating system: #ifdef {macro}")

    def test_header_of_no_layer_is_refused(self):
        self.assert_refused("reader/reader.h", '#include "tests/support/temp_folder.h"',
                            "tests/support/temp_folder.h belongs to no layer")

    def test_folder_without_sources_is_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            self.assertNotEqual(check(folder).returncode, 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
