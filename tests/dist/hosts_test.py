#!/usr/bin/env python3
"""tests/dist/hosts_test.py: the MCP host set-ups that the README and doc/mcp.md show.

Each configuration snippet in doc/hosts/ must read as its format (JSON or TOML), register one
server named nurel whose command is `nurel` with the single argument `mcp`, and stand in
doc/mcp.md as it is in the file. Each command line of the README that registers nurel with a
host must end in `-- nurel mcp`. And the command that the snippets name, found on the PATH as a
host finds it, must run: `nurel mcp` with an empty standard input ends with status 0.

    hosts_test.py <source folder> <folder holding the built nurel>
"""

import json
import os
import re
import shlex
import subprocess
import sys
import tomllib
import unittest

SOURCE = ""
BUILD = ""

# Where each kind of host file keeps its servers.
SERVER_TABLES = ("mcpServers", "servers", "context_servers", "mcp_servers")


def snippets():
    folder = os.path.join(SOURCE, "doc", "hosts")
    return sorted(os.path.join(folder, name) for name in os.listdir(folder))


def read_snippet(path):
    with open(path, "rb") as file:
        data = file.read()
    if path.endswith(".json"):
        return json.loads(data)
    if path.endswith(".toml"):
        return tomllib.loads(data.decode("utf-8"))
    raise AssertionError(f"{path}: neither .json nor .toml")


def server_of(config):
    """The one server a snippet registers, and the table that holds it."""
    tables = [key for key in SERVER_TABLES if key in config]
    if len(tables) != 1 or len(config) != 1:
        raise AssertionError(f"expected one of {SERVER_TABLES} alone, got {sorted(config)}")
    servers = config[tables[0]]
    if list(servers) != ["nurel"]:
        raise AssertionError(f"expected one server named nurel, got {sorted(servers)}")
    return tables[0], servers["nurel"]


def document(path):
    with open(os.path.join(SOURCE, path), encoding="utf-8") as file:
        return file.read()


def readme():
    """The README, which shows the hosts' command lines."""
    return document("README.md")


def host_files():
    """doc/mcp.md, which shows the hosts' configuration files."""
    return document(os.path.join("doc", "mcp.md"))


class Hosts(unittest.TestCase):
    def test_there_are_snippets(self):
        self.assertGreaterEqual(len(snippets()), 3)

    def test_each_snippet_runs_nurel_mcp(self):
        for path in snippets():
            with self.subTest(snippet=os.path.basename(path)):
                table, server = server_of(read_snippet(path))
                self.assertEqual("nurel", server["command"])
                self.assertEqual(["mcp"], server["args"])
                if table == "servers":  # VS Code says how it talks to the server
                    self.assertEqual("stdio", server["type"])

    def test_each_snippet_stands_in_the_mcp_document(self):
        text = host_files()
        for path in snippets():
            with self.subTest(snippet=os.path.basename(path)):
                with open(path, encoding="utf-8") as file:
                    snippet = file.read()
                self.assertIn("\n" + snippet + "```\n", text)

    def test_readme_command_lines_add_nurel_mcp(self):
        lines = re.findall(r"^ *(\w+ mcp add .*)$", readme(), re.MULTILINE)
        self.assertGreaterEqual(len(lines), 2, "no command lines that add nurel to a host")
        for line in lines:
            with self.subTest(line=line):
                words = shlex.split(line)
                self.assertIn("--", words)
                cut = words.index("--")
                self.assertIn("nurel", words[:cut])
                self.assertEqual(["nurel", "mcp"], words[cut + 1:])

    def test_the_named_command_starts_and_ends_cleanly(self):
        for path in snippets():
            with self.subTest(snippet=os.path.basename(path)):
                _, server = server_of(read_snippet(path))
                environment = dict(os.environ, PATH=BUILD)
                environment.pop("NUREL_SOCKET", None)
                run = subprocess.run([server["command"], *server["args"]], env=environment,
                                     stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
                self.assertEqual(0, run.returncode)
                self.assertEqual(b"", run.stdout)
                self.assertEqual(b"", run.stderr)


if __name__ == "__main__":
    SOURCE, BUILD = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    unittest.main(argv=sys.argv[:1], verbosity=2)
