# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Reads and checks a D-Bus interface description."""

import dataclasses
import re
import textwrap
import xml.parsers.expat

OBJECT_PATH_ANNOTATION = "org.vantrel.codegen.ObjectPath"

# D-Bus type: C++ type.
TYPES = {
    "s": "std::string",
    "i": "int",
    "a{sv}": "kestrix::VariantDictionary",
}

_MEMBER_NAME = re.compile(r"[A-Z][A-Za-z0-9]*\Z")
_ARGUMENT_NAME = re.compile(r"[a-z][a-z0-9_]*\Z")
_INTERFACE_NAME = re.compile(r"[A-Za-z]\w*(\.[A-Za-z]\w*){2,}\Z", re.ASCII)
_OBJECT_PATH = re.compile(r"(/[A-Za-z0-9_]+)+\Z")
_CPP_WORDS = frozenset(
    "auto bool break case catch char class concept const continue default "
    "delete do double else enum explicit export extern false float for friend "
    "goto if inline int long mutable namespace new operator private protected "
    "public register requires return short signed sizeof static struct switch "
    "template this throw true try typedef typeid typename union unsigned using "
    "virtual void volatile while".split())
# What a proxy has beside the members of its interface.
_PROXY_MEMBERS = ("GetObjectPath", "GetObjectProxy", "GetWeakPtr",
                  "OnPropertyChanged", "PropertySet",
                  "SetPropertyChangedCallback")


class DescriptionError(Exception):
    """The description is wrong, or holds what we do not support."""


@dataclasses.dataclass
class Argument:
    name: str
    type: str  # as D-Bus writes it
    doc: str

    @property
    def cpp_type(self):
        return TYPES[self.type]


@dataclasses.dataclass
class Method:
    name: str
    doc: list  # of paragraphs
    inputs: list
    outputs: list


@dataclasses.dataclass
class Property:
    name: str
    type: str
    doc: list

    @property
    def cpp_type(self):
        return TYPES[self.type]

    @property
    def cpp_name(self):
        """DeviceId becomes device_id."""
        return re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", self.name).lower()


@dataclasses.dataclass
class Interface:
    name: str
    doc: list
    object_path: str  # None: the objects have many paths
    methods: list
    properties: list

    @property
    def base_name(self):
        return self.name.rpartition(".")[2]


@dataclasses.dataclass
class Service:
    """Interfaces that share all of their names but the last element."""
    object_manager_path: str
    interfaces: list

    @property
    def name(self):
        return self.interfaces[0].name.rpartition(".")[0]

    @property
    def cpp_namespace(self):
        return self.name.replace(".", "::")


class _Element:
    def __init__(self, tag, attributes, line, comment):
        self.tag = tag
        self.attributes = attributes
        self.line = line
        self.comment = comment  # the one right before the element, or None
        self.children = []

    def fail(self, message):
        raise DescriptionError("line %d: %s" % (self.line, message))

    def take_attributes(self, *names):
        """The values of `names`, all of which must be there, and no other."""
        for name in self.attributes:
            if name not in names:
                self.fail('<%s> has the unsupported attribute "%s"' % (
                    self.tag, name))
        for name in names:
            if name not in self.attributes:
                self.fail('<%s> lacks the attribute "%s"' % (self.tag, name))
        return [self.attributes[name] for name in names]


def _parse(path):
    """The root element of the file."""
    parser = xml.parsers.expat.ParserCreate()
    open_elements = []
    roots = []
    comments = []

    def start(tag, attributes):
        element = _Element(tag, attributes, parser.CurrentLineNumber,
                           comments.pop() if comments else None)
        comments.clear()
        (open_elements[-1].children if open_elements else roots).append(element)
        open_elements.append(element)

    def end(_tag):
        comments.clear()
        open_elements.pop()

    def text(data):
        if data.strip():
            open_elements[-1].fail("<%s> holds text" % open_elements[-1].tag)

    parser.StartElementHandler = start
    parser.EndElementHandler = end
    parser.CharacterDataHandler = text
    parser.CommentHandler = comments.append
    try:
        with open(path, "rb") as source:
            parser.ParseFile(source)
    except xml.parsers.expat.ExpatError as error:
        raise DescriptionError("line %d: not well-formed XML: %s" % (
            error.lineno, xml.parsers.expat.ErrorString(error.code))) from None
    return roots[0]


def _read_doc(element, name):
    """The paragraphs and the argument texts of an element's doc comment."""
    lines = textwrap.dedent(element.comment or "").strip().split("\n")
    if lines[0].strip() != name + ":":
        element.fail('%s has no doc comment: expected one that begins "%s:" '
                     "right before it" % (name, name))
    arguments = {}
    rest = lines[1:]
    while rest and rest[0].strip().startswith("@"):
        argument, colon, text = rest.pop(0).strip()[1:].partition(": ")
        if not colon or argument in arguments:
            element.fail('%s: "@%s" must read "@argument: text", once' % (
                name, argument))
        arguments[argument] = text.strip()
    paragraphs = [" ".join(paragraph.split())
                  for paragraph in "\n".join(rest).split("\n\n")
                  if paragraph.strip()]
    if not paragraphs:
        element.fail("the doc comment of %s says nothing" % name)
    return paragraphs, arguments


def _check_type(element, owner, value):
    if value not in TYPES:
        element.fail('%s has the unsupported type "%s" (supported: %s)' % (
            owner, value, ", ".join(TYPES)))


def _read_method(element):
    name, = element.take_attributes("name")
    if not _MEMBER_NAME.match(name):
        element.fail('"%s" is no name for a method' % name)
    doc, argument_docs = _read_doc(element, name)
    method = Method(name, doc, [], [])
    seen = set()
    for child in element.children:
        if child.tag != "arg":
            child.fail("<%s> in a method is not supported" % child.tag)
        argument, kind, direction = child.take_attributes(
            "name", "type", "direction")
        owner = "the argument %s of %s" % (argument, name)
        if not _ARGUMENT_NAME.match(argument):
            child.fail('"%s" is no name for an argument' % argument)
        if argument in seen:
            child.fail("%s is there twice" % owner)
        seen.add(argument)
        _check_type(child, owner, kind)
        if direction not in ("in", "out"):
            child.fail('%s has the direction "%s"' % (owner, direction))
        if argument not in argument_docs:
            child.fail('%s has no doc: expected "@%s: text"' % (
                owner, argument))
        (method.inputs if direction == "in" else method.outputs).append(
            Argument(argument, kind, argument_docs.pop(argument)))
    for argument in argument_docs:
        element.fail("the doc comment of %s tells of an argument %s, which is "
                     "not there" % (name, argument))
    return method


def _read_property(element):
    name, kind, access = element.take_attributes("name", "type", "access")
    if not _MEMBER_NAME.match(name):
        element.fail('"%s" is no name for a property' % name)
    _check_type(element, "the property %s" % name, kind)
    if access != "read":
        element.fail('the property %s has the access "%s": only "read" is '
                     "supported" % (name, access))
    doc, arguments = _read_doc(element, name)
    if arguments:
        element.fail("the doc comment of the property %s tells of arguments" %
                     name)
    result = Property(name, kind, doc)
    if result.cpp_name in _CPP_WORDS:
        element.fail("the property %s would be the C++ keyword %s" % (
            name, result.cpp_name))
    return result


def _read_interface(element):
    name, = element.take_attributes("name")
    if not _INTERFACE_NAME.match(name):
        element.fail('"%s" is no interface name of three or more words' % name)
    if name.endswith(".ObjectManager"):
        element.fail("ObjectManager is the name of a class of our own")
    doc, arguments = _read_doc(element, name)
    if arguments:
        element.fail("the doc comment of %s tells of arguments" % name)
    interface = Interface(name, doc, None, [], [])
    taken = set(_PROXY_MEMBERS)

    def claim(child, *cpp_names):
        for cpp_name in cpp_names:
            if cpp_name in taken:
                child.fail("%s: the name %s is taken already" % (
                    name, cpp_name))
            taken.add(cpp_name)

    for child in element.children:
        if child.tag == "method":
            method = _read_method(child)
            claim(child, method.name, method.name + "Async")
            interface.methods.append(method)
        elif child.tag == "property":
            read_property = _read_property(child)
            claim(child, read_property.cpp_name)
            interface.properties.append(read_property)
        elif child.tag == "annotation":
            annotation, value = child.take_attributes("name", "value")
            if (annotation != OBJECT_PATH_ANNOTATION or interface.object_path
                    or not _OBJECT_PATH.match(value)):
                child.fail("an interface takes one annotation, %s with an "
                           "object path" % OBJECT_PATH_ANNOTATION)
            interface.object_path = value
        else:
            child.fail("<%s> in an interface is not supported" % child.tag)
    return interface


def read(path, ours):
    """The Service that the file describes; DescriptionError if it is wrong.

    `ours` says that the objects are our own.
    """
    root = _parse(path)
    if root.tag != "node":
        root.fail("the root is <%s>, not <node>" % root.tag)
    object_manager_path, = root.take_attributes("name")
    if not _OBJECT_PATH.match(object_manager_path):
        root.fail('"%s" is no object path' % object_manager_path)
    service = Service(object_manager_path, [])
    for child in root.children:
        if child.tag != "interface":
            child.fail("<%s> in a node is not supported" % child.tag)
        interface = _read_interface(child)
        if ours and interface.properties:
            child.fail("%s: properties of our own objects are not supported" %
                       interface.name)
        if ours and not interface.methods:
            child.fail("%s has no method" % interface.name)
        if interface.name in [known.name for known in service.interfaces]:
            child.fail("the interface %s is there twice" % interface.name)
        service.interfaces.append(interface)
        if interface.name.rpartition(".")[0] != service.name:
            child.fail("%s does not begin with %s, as the first interface "
                       "does" % (interface.name, service.name))
    if not service.interfaces:
        root.fail("there is no interface in the node")
    return service
