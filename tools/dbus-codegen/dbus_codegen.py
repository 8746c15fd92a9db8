#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Turns a D-Bus interface description into C++ glue.

  dbus_codegen.py proxies XML --header HEADER --source SOURCE --include NAME
  dbus_codegen.py adaptors XML --header HEADER

"proxies" writes the classes by which we use another program's objects,
"adaptors" the glue by which we offer our own. README.md beside this file tells
what a description holds.
"""

import argparse
import os
import sys

import cpp_writer
import description


def write(path, text):
    with open(path, "w", encoding="utf-8") as output:
        output.write(text)


def main():
    parser = argparse.ArgumentParser(
        prog="dbus_codegen.py",
        description="Turn a D-Bus interface description into C++ glue.")
    commands = parser.add_subparsers(dest="command", required=True)
    proxies = commands.add_parser(
        "proxies", help="classes by which we use another program's objects")
    proxies.add_argument("--source", required=True, help="file to write")
    proxies.add_argument("--include", required=True,
                         help="how the source names the header")
    adaptors = commands.add_parser(
        "adaptors", help="glue by which we offer our own objects")
    for command in (proxies, adaptors):
        command.add_argument("xml", help="the description to read")
        command.add_argument("--header", required=True, help="file to write")
    arguments = parser.parse_args()

    try:
        service = description.read(
            arguments.xml, ours=arguments.command == "adaptors")
        origin = "interfaces/" + os.path.basename(arguments.xml)
        guard = cpp_writer.guard(arguments.header)
        if arguments.command == "proxies":
            header = cpp_writer.proxies_header(service, origin, guard)
            source = cpp_writer.proxies_source(
                service, origin, arguments.include)
            write(arguments.source, source)
        else:
            header = cpp_writer.adaptors_header(service, origin, guard)
        write(arguments.header, header)
    except description.DescriptionError as error:
        sys.exit("dbus_codegen: %s: %s" % (arguments.xml, error))
    except OSError as error:
        sys.exit("dbus_codegen: %s" % error)


if __name__ == "__main__":
    main()
