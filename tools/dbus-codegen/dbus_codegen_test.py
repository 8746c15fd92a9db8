#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Tests of the generator, through its command line.

The environment variable CXX names the compiler for what is generated.
"""

import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

SAMPLE = """\
<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node name="/com/example/Shop">
  <!--
    com.example.Shop.TillDrawer:

    Holds the money.
  -->
  <interface name="com.example.Shop.TillDrawer">
    <annotation name="org.vantrel.codegen.ObjectPath"
                value="/com/example/Shop/Till"/>
    <!--
      Count:
      @coin: Which coin.
      @number: How many there are.
      @notes: What else there is.

      Counts the coins of one kind.

      Fails for a coin that is not known.
    -->
    <method name="Count">
      <arg name="coin" type="s" direction="in"/>
      <arg name="number" type="i" direction="out"/>
      <arg name="notes" type="a{sv}" direction="out"/>
    </method>
    <!--
      Open:

      Opens the drawer. It fails if the drawer is open.
    -->
    <method name="Open"/>
  </interface>
  <!--
    com.example.Shop.Shelf:

    Holds the goods.
  -->
  <interface name="com.example.Shop.Shelf">
    <!--
      UnitPrice:

      In cents.
    -->
    <property name="UnitPrice" type="i" access="read"/>
  </interface>
</node>
"""

# The last interface, with its comment.
SHELF = SAMPLE[SAMPLE.index("  <!--\n    com.example.Shop.Shelf"):
               SAMPLE.index("</node>")]
PROPERTY = '<property name="UnitPrice" type="i" access="read"/>'


class CodegenTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        os.mkdir(self.path("shop"))

    def path(self, name):
        return os.path.join(self.folder, name)

    def read(self, name):
        with open(self.path(name), encoding="utf-8") as source:
            return source.read()

    def run_codegen(self, command, xml):
        with open(self.path("shop.xml"), "w", encoding="utf-8") as output:
            output.write(xml)
        arguments = [sys.executable, "-B",
                     os.path.join(HERE, "dbus_codegen.py"), command,
                     self.path("shop.xml"), "--header",
                     self.path("shop/glue.h")]
        if command == "proxies":
            arguments += ["--source", self.path("glue.cc"),
                          "--include", "shop/glue.h"]
        return subprocess.run(arguments, capture_output=True, text=True,
                              check=False)

    def generate(self, command, xml):
        run = self.run_codegen(command, xml)
        self.assertEqual((run.returncode, run.stdout, run.stderr), (0, "", ""))

    def assert_refused(self, where, reason, xml, command="proxies"):
        """That the error names the line of `where` in `xml`, and `reason`, and
        that nothing was written."""
        line = 1 + xml[:xml.index(where)].count("\n")
        run = self.run_codegen(command, xml)
        self.assertEqual(run.stderr, "dbus_codegen: %s: line %d: %s\n" % (
            self.path("shop.xml"), line, reason))
        self.assertEqual(run.returncode, 1)
        self.assertEqual(os.listdir(self.path("shop")), [])

    def assert_compiles(self, name):
        run = subprocess.run(
            [os.environ.get("CXX", "c++"), "-std=c++20", "-fno-exceptions",
             "-fno-rtti", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow",
             "-Werror", "-fsyntax-only", "-I", ROOT, "-I", self.folder,
             "-x", "c++", self.path(name)],
            capture_output=True, text=True, check=False)
        self.assertEqual((run.returncode, run.stderr), (0, ""))

    def test_proxies_compile(self):
        self.generate("proxies", SAMPLE)
        self.assert_compiles("glue.cc")

    def test_adaptors_compile(self):
        self.generate("adaptors", SAMPLE.replace(SHELF, ""))
        self.assert_compiles("shop/glue.h")

    def test_names_follow_the_description(self):
        self.generate("proxies", SAMPLE)
        header = self.read("shop/glue.h")
        for expected in (
                "#ifndef SHOP_GLUE_H_\n",
                "// interfaces/shop.xml. Do not edit.\n",
                "namespace com::example::Shop {\n",
                "class TillDrawerProxy : public TillDrawerProxyInterface {\n",
                "  bool Count(const std::string& in_coin, int* out_number,\n"
                "             kestrix::VariantDictionary* out_notes,\n"
                "             std::unique_ptr<kestrix::Error>* error = "
                "nullptr,\n"
                "             int timeout_ms = -1) override;\n",
                "  const int& unit_price() const override;\n",
                "  std::map<std::string, std::unique_ptr<TillDrawerProxy>>\n"
                "      till_drawer_instances_;\n"):
            self.assertIn(expected, header)
        source = self.read("glue.cc")
        for expected in (
                'constexpr char kServiceName[] = "com.example.Shop";\n',
                'constexpr char kObjectManagerPath[] = "/com/example/Shop";\n',
                '  RegisterProperty("UnitPrice", &unit_price);\n'):
            self.assertIn(expected, source)

    def test_doc_comments_are_carried_over(self):
        self.generate("proxies", SAMPLE)
        self.assertIn(
            "  // Counts the coins of one kind.\n"
            "  //\n"
            "  // Fails for a coin that is not known.\n"
            "  //\n"
            "  // `in_coin`: Which coin.\n"
            "  // `out_number`: How many there are.\n"
            "  // `out_notes`: What else there is.\n"
            "  virtual bool Count(", self.read("shop/glue.h"))

    def test_only_an_interface_with_a_path_is_singular(self):
        self.generate("proxies", SAMPLE)
        header = self.read("shop/glue.h")
        self.assertIn("  TillDrawerProxy* GetTillDrawerProxy();\n", header)
        self.assertNotIn("GetShelfProxy();", header)
        self.assertIn('      object_path_("/com/example/Shop/Till"),\n',
                      self.read("glue.cc"))

    def test_lines_are_broken_at_80_columns(self):
        self.generate("proxies", SAMPLE)
        for line in (self.read("shop/glue.h") + self.read(
                "glue.cc")).split("\n"):
            self.assertLessEqual(len(line), 80, line)

    def test_refuses_what_is_no_xml(self):
        self.assert_refused("</nod>", "not well-formed XML: mismatched tag",
                            '<node name="/a">\n</nod>')

    def test_refuses_an_empty_file(self):
        self.assert_refused("", "not well-formed XML: no element found", "")

    def test_refuses_another_root(self):
        self.assert_refused("<", "the root is <interface>, not <node>",
                            "<interface/>")

    def test_refuses_a_node_without_path(self):
        self.assert_refused("<node>", '<node> lacks the attribute "name"',
                            SAMPLE.replace(' name="/com/example/Shop"', ""))

    def test_refuses_a_node_without_interface(self):
        self.assert_refused("<", "there is no interface in the node",
                            '<node name="/a"/>')

    def test_refuses_a_signal(self):
        self.assert_refused(
            "<signal", "<signal> in an interface is not supported",
            SAMPLE.replace(PROPERTY, '<signal name="Sold"/>'))

    def test_refuses_a_writable_property(self):
        self.assert_refused(
            "<property", 'the property UnitPrice has the access "readwrite": '
            'only "read" is supported',
            SAMPLE.replace('access="read"', 'access="readwrite"'))

    def test_refuses_an_unsupported_type(self):
        self.assert_refused(
            'name="number"', "the argument number of Count has the unsupported "
            'type "t" (supported: s, i, a{sv})',
            SAMPLE.replace('name="number" type="i"', 'name="number" type="t"'))

    def test_refuses_an_argument_without_name(self):
        self.assert_refused('<arg type="i"', '<arg> lacks the attribute "name"',
                            SAMPLE.replace('name="number" ', ""))

    def test_refuses_an_argument_without_direction(self):
        self.assert_refused(
            'name="coin"', '<arg> lacks the attribute "direction"',
            SAMPLE.replace(' direction="in"', ""))

    def test_refuses_an_unknown_direction(self):
        self.assert_refused(
            'name="coin"',
            'the argument coin of Count has the direction "inout"',
            SAMPLE.replace('direction="in"', 'direction="inout"'))

    def test_refuses_an_argument_that_is_there_twice(self):
        self.assert_refused(
            'type="i" direction', "the argument coin of Count is there twice",
            SAMPLE.replace('name="number"', 'name="coin"'))

    def test_refuses_an_unknown_attribute(self):
        self.assert_refused(
            "<property", '<property> has the unsupported attribute "since"',
            SAMPLE.replace('access="read"', 'access="read" since="2"'))

    def test_refuses_an_unknown_annotation(self):
        self.assert_refused(
            "<annotation", "an interface takes one annotation, "
            "org.vantrel.codegen.ObjectPath with an object path",
            SAMPLE.replace("org.vantrel.codegen.ObjectPath", "Other"))

    def test_refuses_text(self):
        self.assert_refused(
            '<interface name="com.example.Shop.Shelf">',
            "<interface> holds text",
            SAMPLE.replace(PROPERTY, PROPERTY + "cheap"))

    def test_refuses_a_method_without_doc(self):
        self.assert_refused(
            "<method name=\"Open\"", "Open has no doc comment: expected one "
            'that begins "Open:" right before it',
            SAMPLE.replace("Open:", "Close:"))

    def test_takes_no_doc_from_an_earlier_element(self):
        self.assert_refused(
            '<method name="Open"', "Open has no doc comment: expected one "
            'that begins "Open:" right before it',
            SAMPLE.replace('<method name="Open"/>',
                           PROPERTY.replace("UnitPrice", "Open") +
                           '\n<method name="Open"/>'))

    def test_refuses_an_empty_doc(self):
        self.assert_refused(
            "<property", "the doc comment of UnitPrice says nothing",
            SAMPLE.replace("In cents.", ""))

    def test_refuses_an_argument_without_doc(self):
        self.assert_refused(
            'name="number"',
            'the argument number of Count has no doc: expected "@number: text"',
            SAMPLE.replace("      @number: How many there are.\n", ""))

    def test_refuses_the_doc_of_an_argument_that_is_not_there(self):
        self.assert_refused(
            '<method name="Open"', "the doc comment of Open tells of an "
            "argument how, which is not there",
            SAMPLE.replace("      Open:\n", "      Open:\n      @how: Fast.\n"))

    def test_refuses_a_name_that_is_taken(self):
        self.assert_refused(
            '<method name="CountAsync"', "com.example.Shop.TillDrawer: the "
            "name CountAsync is taken already",
            SAMPLE.replace("Open:", "CountAsync:").replace(
                'name="Open"', 'name="CountAsync"'))

    def test_refuses_a_property_that_is_a_keyword(self):
        self.assert_refused(
            "<property", "the property Class would be the C++ keyword class",
            SAMPLE.replace("UnitPrice", "Class"))

    def test_refuses_interfaces_of_two_services(self):
        self.assert_refused(
            '<interface name="com.example.Store', "com.example.Store.Shelf "
            "does not begin with com.example.Shop, as the first interface does",
            SAMPLE.replace("com.example.Shop.Shelf", "com.example.Store.Shelf"))

    def test_refuses_an_interface_that_is_there_twice(self):
        self.assert_refused(
            '<interface name="com.example.Shop.TillDrawer">\n    <!--\n      '
            "UnitPrice",
            "the interface com.example.Shop.TillDrawer is there twice",
            SAMPLE.replace(".Shelf", ".TillDrawer"))

    def test_refuses_properties_of_our_own_objects(self):
        self.assert_refused(
            '<interface name="com.example.Shop.Shelf">',
            "com.example.Shop.Shelf: properties of our own objects are not "
            "supported", SAMPLE, command="adaptors")

    def test_refuses_an_interface_of_our_own_without_methods(self):
        self.assert_refused(
            '<interface name="com.example.Shop.Shelf">',
            "com.example.Shop.Shelf has no method",
            SAMPLE.replace(PROPERTY, ""), command="adaptors")

    def test_reports_a_file_that_cannot_be_read(self):
        run = subprocess.run(
            [sys.executable, "-B", os.path.join(HERE, "dbus_codegen.py"),
             "adaptors", self.path("none.xml"), "--header", self.path("x.h")],
            capture_output=True, text=True, check=False)
        self.assertEqual(run.stderr, "dbus_codegen: [Errno 2] No such file or "
                         "directory: '%s'\n" % self.path("none.xml"))
        self.assertEqual(run.returncode, 1)

    def test_refuses_an_unknown_command(self):
        run = self.run_codegen("stubs", SAMPLE)
        self.assertIn("invalid choice: 'stubs'", run.stderr)
        self.assertEqual(run.returncode, 2)


if __name__ == "__main__":
    unittest.main()
