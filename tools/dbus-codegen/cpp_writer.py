# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Writes C++ for a description.Service."""

import os
import re

import layout
import templates


def guard(path):
    """The include guard of a header in a directory with a speaking name."""
    folder, name = os.path.split(os.path.abspath(path))
    return re.sub(r"\W", "_", "%s/%s_" % (
        os.path.basename(folder), name)).upper()


def _comment(indent, paragraphs):
    return ("\n%s//\n" % indent).join(
        "%s// %s" % (indent, paragraph) for paragraph in paragraphs)


def _method_comment(method):
    comment = _comment("  ", method.doc)
    arguments = ["  // `%s%s`: %s\n" % (prefix, argument.name, argument.doc)
                 for prefix, arguments in (("in_", method.inputs),
                                           ("out_", method.outputs))
                 for argument in arguments]
    if arguments:
        comment += "\n  //\n" + "".join(arguments).rstrip("\n")
    return comment


def _inputs(method):
    return ["const %s& in_%s" % (a.cpp_type, a.name) for a in method.inputs]


def _blocking(method, defaults=True):
    return ", ".join(_inputs(method) + [
        "%s* out_%s" % (a.cpp_type, a.name) for a in method.outputs
    ] + ["std::unique_ptr<kestrix::Error>* error" + " = nullptr" * defaults,
         "int timeout_ms" + " = -1" * defaults])


def _asynchronous(method, defaults=True):
    return ", ".join(_inputs(method) + [
        "const base::Callback<void(%s)>& success_callback" % ", ".join(
            "const %s&" % a.cpp_type for a in method.outputs),
        "const kestrix::dbus_utils::AsyncErrorCallback& error_callback",
        "int timeout_ms" + " = -1" * defaults])


def _names(interface):
    """What most templates need."""
    return {"base": interface.base_name, "name": interface.name,
            "member": re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_",
                             interface.base_name).lower()}


def _constructor_parameters(interface):
    return ", ".join(
        ["dbus::Bus* bus", "const std::string& service_name"] +
        ["const std::string& object_path"] * (not interface.object_path) +
        ["PropertySet* property_set"])


def _proxy_classes(interface):
    def methods(form):
        return "".join(form % {
            "name": method.name, "doc": _method_comment(method),
            "blocking": _blocking(method),
            "asynchronous": _asynchronous(method)
        } for method in interface.methods)

    def properties(form, before="", after=""):
        if not interface.properties:
            return ""
        return before + "".join(form % {
            "doc": _comment("  ", p.doc), "type": p.cpp_type,
            "name": p.cpp_name} for p in interface.properties) + after

    return templates.PROXY_CLASSES.substitute(
        _names(interface),
        doc=_comment("", interface.doc +
                     [templates.METHODS_COMMENT] * bool(interface.methods) +
                     [templates.PROPERTIES_COMMENT] *
                     bool(interface.properties)),
        where=("the object at %s, whatever path was announced" %
               interface.object_path if interface.object_path
               else "the object at `object_path`"),
        constructor_parameters=_constructor_parameters(interface),
        unused="" if interface.properties else "[[maybe_unused]] ",
        interface_methods=methods(
            "%(doc)s\n"
            "  virtual bool %(name)s(%(blocking)s) = 0;\n"
            "  virtual void %(name)sAsync(%(asynchronous)s) = 0;\n\n"),
        interface_properties=properties(
            "%(doc)s\n  virtual const %(type)s& %(name)s() const = 0;\n",
            after="\n"),
        property_fields=properties(
            "    kestrix::dbus_utils::Property<%(type)s> %(name)s;\n",
            before="\n"),
        proxy_methods=methods(
            "  bool %(name)s(%(blocking)s) override;\n"
            "  void %(name)sAsync(%(asynchronous)s) override;\n") +
        "\n" * bool(interface.methods),
        proxy_properties=properties(
            "  const %(type)s& %(name)s() const override;\n", after="\n"))


def _object_manager_class(service):
    def each(template, **more):
        return "".join(template.substitute(_names(interface), **{
            name: make(interface) for name, make in more.items()
        }) for interface in service.interfaces)

    return templates.OBJECT_MANAGER_CLASS.substitute(
        service=service.name, path=service.object_manager_path,
        operations=each(
            templates.OBJECT_MANAGER_OPERATIONS,
            first=lambda interface: templates.OBJECT_MANAGER_FIRST.substitute(
                _names(interface)) if interface.object_path else ""),
        members=each(templates.OBJECT_MANAGER_MEMBERS))


def _proxy_definitions(interface):
    base = interface.base_name
    methods = "".join(templates.METHOD_DEFINITIONS.substitute(
        base=base, name=method.name,
        blocking=_blocking(method, defaults=False),
        asynchronous=_asynchronous(method, defaults=False),
        call='timeout_ms, dbus_object_proxy_, k%sInterface, "%s"' % (
            base, method.name),
        inputs="".join(", in_" + a.name for a in method.inputs),
        outputs="".join(", out_" + a.name for a in method.outputs))
                      for method in interface.methods)
    return templates.PROXY_DEFINITIONS.substitute(
        base=base, methods=methods,
        constructor_parameters=_constructor_parameters(interface),
        object_path=('"%s"' % interface.object_path if interface.object_path
                     else "object_path"),
        registrations="".join('  RegisterProperty("%s", &%s);\n' % (
            p.name, p.cpp_name) for p in interface.properties),
        accessors="".join(
            "const %s& %sProxy::%s() const { return property_set_->%s.value(); "
            "}\n\n" % (p.cpp_type, base, p.cpp_name, p.cpp_name)
            for p in interface.properties))


def _object_manager_definitions(service):
    interfaces = service.interfaces

    def lines(form):
        return "".join(form % interface.base_name for interface in interfaces)

    def branches(template, **more):
        return "  " + " else ".join(
            template.substitute(_names(interface), **{
                name: make(interface) for name, make in more.items()})
            for interface in interfaces)

    return templates.OBJECT_MANAGER_DEFINITIONS.substitute(
        registrations=lines("  dbus_object_manager_->RegisterInterface("
                            "k%sInterface, this);\n"),
        unregistrations=lines("  dbus_object_manager_->UnregisterInterface("
                              "k%sInterface);\n"),
        create="".join(templates.CREATE.substitute(base=interface.base_name)
                       for interface in interfaces),
        added=branches(templates.ADDED, path=lambda interface:
                       "" if interface.object_path else " object_path,"),
        removed=branches(templates.REMOVED),
        changed=branches(templates.CHANGED),
        operations="".join(
            templates.OBJECT_MANAGER_OPERATION_DEFINITIONS.substitute(
                _names(interface),
                first=templates.OBJECT_MANAGER_FIRST_DEFINITION.substitute(
                    _names(interface)) if interface.object_path else "")
            for interface in interfaces))


def _adaptor_classes(interface):
    def types(arguments):
        return "".join(", const %s&" % a.cpp_type for a in arguments)

    return templates.ADAPTOR_CLASSES.substitute(
        _names(interface),
        doc=_comment("", interface.doc + [templates.TAKING_CALLS_COMMENT]),
        responses="".join(templates.RESPONSE.substitute(
            name=method.name, types=", ".join(
                a.cpp_type for a in method.outputs))
                          for method in interface.methods),
        methods="".join(templates.TAKE_CALL.substitute(
            doc=_method_comment(method), name=method.name, inputs="".join(
                ", " + parameter for parameter in _inputs(method)))
                        for method in interface.methods),
        handlers="".join(templates.HANDLER.substitute(
            base=interface.base_name, name=method.name,
            types=types(method.inputs),
            in_signature="".join(a.type for a in method.inputs),
            out_signature="".join(a.type for a in method.outputs),
            names=", ".join('"%s"' % a.name
                            for a in method.inputs + method.outputs))
                         for method in interface.methods))


def _file(origin, content):
    return layout.lay_out(templates.FILE.substitute(
        origin=origin, content=content))


def _header(service, origin, include_guard, includes, classes):
    classes = "\n\n".join(classes)
    if "kestrix::VariantDictionary" in classes:
        includes += '#include "kestrix/variant_dictionary.h"\n'
    return _file(origin, templates.HEADER.substitute(
        guard=include_guard, namespace=service.cpp_namespace,
        includes=includes, classes=classes))


def proxies_header(service, origin, include_guard):
    return _header(
        service, origin, include_guard, templates.PROXIES_INCLUDES,
        [_proxy_classes(interface) for interface in service.interfaces] +
        [_object_manager_class(service)])


def proxies_source(service, origin, header):
    definitions = [_proxy_definitions(interface)
                   for interface in service.interfaces]
    definitions.append(_object_manager_definitions(service))
    return _file(origin, templates.SOURCE.substitute(
        header=header, namespace=service.cpp_namespace, service=service.name,
        path=service.object_manager_path,
        constants="\n".join('constexpr char k%sInterface[] = "%s";' % (
            interface.base_name, interface.name)
                            for interface in service.interfaces),
        definitions="".join(definitions)))


def adaptors_header(service, origin, include_guard):
    return _header(
        service, origin, include_guard, templates.ADAPTORS_INCLUDES,
        [_adaptor_classes(interface) for interface in service.interfaces])
