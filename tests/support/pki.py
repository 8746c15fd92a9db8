#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Makes a throw-away certificate authority and server certificates.

Everything is made with the openssl command line, so the certificates do not
come from the library that checks them in a way only that library likes.
"""

import argparse
import os
import subprocess
import sys

CA_CERTIFICATE = "ca.crt"
CA_KEY = "ca.key"


def openssl(*arguments, stdin=None):
    """Runs openssl and reports what it said if it fails."""
    done = subprocess.run(["openssl", *arguments], input=stdin,
                          capture_output=True, check=False)
    if done.returncode != 0:
        raise RuntimeError("openssl %s: %s" % (
            arguments[0], done.stderr.decode(errors="replace").strip()))
    return done.stdout


def make_ca(folder, common_name="Test authority"):
    """Makes `folder`/ca.crt and `folder`/ca.key; returns the former's path."""
    os.makedirs(folder, mode=0o700, exist_ok=True)
    certificate = os.path.join(folder, CA_CERTIFICATE)
    openssl("req", "-x509", "-newkey", "ec",
            "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
            "-keyout", os.path.join(folder, CA_KEY), "-out", certificate,
            "-days", "30", "-subj", "/CN=" + common_name,
            "-addext", "basicConstraints=critical,CA:TRUE",
            "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    return certificate


EXPIRED = ["-startdate", "20200101000000Z", "-enddate", "20200201000000Z"]
NOT_YET_VALID = ["-startdate", "20900101000000Z",
                 "-enddate", "20900201000000Z"]
EC_KEY = ["ec", "-pkeyopt", "ec_paramgen_curve:prime256v1"]


def issue(ca_folder, out_folder, label, names, expired=False, dates=None,
          usage="serverAuth", key_kind=None, digest="sha256",
          extensions=()):
    """Issues a server certificate for the DNS `names`.

    Returns (certificate, key), two PEM files called after `label`. With
    `expired`, the certificate ended long ago. The rest is for certificates
    that are wrong in another way; `extensions` are lines of OpenSSL's.
    """
    os.makedirs(out_folder, mode=0o700, exist_ok=True)
    base = os.path.join(out_folder, label)
    key, request, certificate = base + ".key", base + ".csr", base + ".crt"
    openssl("req", "-newkey", *(key_kind or EC_KEY), "-nodes",
            "-keyout", key, "-out", request, "-subj", "/CN=" + names[0][:64])
    dates = dates or (EXPIRED if expired else ["-days", "30"])
    # `openssl ca` is the one command that takes a start and an end date; it
    # wants a small data base of its own.
    config = base + ".cnf"
    with open(config, "w", encoding="ascii") as file:
        file.write("\n".join([
            "[ca]", "default_ca = this", "[this]",
            "database = %s.db" % base, "new_certs_dir = %s" % out_folder,
            "rand_serial = yes", "default_md = " + digest, "policy = any",
            "unique_subject = no", "x509_extensions = server",
            "[any]", "commonName = supplied",
            "[server]", "basicConstraints = critical,CA:FALSE",
            "extendedKeyUsage = " + usage,
            "subjectAltName = " + ",".join("DNS:" + n for n in names),
            *extensions, ""]))
    with open(base + ".db", "w", encoding="ascii"):
        pass
    openssl("ca", "-batch", "-notext", "-config", config, *dates,
            "-cert", os.path.join(ca_folder, CA_CERTIFICATE),
            "-keyfile", os.path.join(ca_folder, CA_KEY),
            "-in", request, "-out", certificate)
    return certificate, key


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    commands = parser.add_subparsers(dest="command", required=True)
    ca = commands.add_parser("ca", help="make an authority in a folder")
    ca.add_argument("folder")
    server = commands.add_parser("issue", help="issue a server certificate")
    server.add_argument("--ca", required=True, help="the authority's folder")
    server.add_argument("--out", required=True, help="where to put the files")
    server.add_argument("--expired", action="store_true",
                        help="end the certificate's life in the past")
    server.add_argument("label", help="base name of the files")
    server.add_argument("names", nargs="+", help="DNS names")
    options = parser.parse_args()
    try:
        if options.command == "ca":
            print(make_ca(options.folder))
        else:
            for path in issue(options.ca, options.out, options.label,
                              options.names, options.expired):
                print(path)
    except (OSError, RuntimeError) as error:
        print("pki: %s" % error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
