"""Checks the dynamic symbol table of libzrtproxy: every function the C header declares is there,
and nothing is exported beyond the C interface and the documented C++ host classes (no engine
internals, no test hooks, no standard-library instances)."""
import re
import subprocess
import sys

ALLOWED = [
    r"zrt_\w+",
    r"ZRT::Proxy::CProxy::.*",
    r"ZRT::Host::CDirectHost::.*",
    r"ZRT::CTCPIPAddress::.*",
    r"ZRT::IZRTNotification::.*",
    r"QOX::CRefCount_Base::.*",
    r"(typeinfo|typeinfo name|vtable) for (ZRT::Proxy::CProxy|ZRT::CTCPIPAddress|QOX::CRefCount_Base"
    r"|ZRT::I\w+|ZRT::Proxy::IProxyObserver)",
]


def exported(library):
    out = subprocess.run(["nm", "-D", "--defined-only", "-C", library], check=True, capture_output=True,
                         text=True).stdout
    names = []
    for line in out.splitlines():
        parts = line.split(" ", 2)
        if len(parts) < 3 or parts[1] == "A":  # the version node itself
            continue
        names.append(re.sub(r"@@?ZRTPROXY_\d+$", "", parts[2]))
    return names


def declared(header):
    return set(re.findall(r"ZRT_API [^;(]*?\b(zrt_\w+)\s*\(", open(header).read()))


def main():
    library, header = sys.argv[1], sys.argv[2]
    names = exported(library)
    stray = [n for n in names if not any(re.fullmatch(p, n) for p in ALLOWED)]
    missing = sorted(declared(header) - set(names))
    hooks = [n for n in names if "ForTesting" in n or "std::" in n.split("(")[0]]
    for n in stray:
        print("exported but not part of the interface:", n)
    for n in missing:
        print("declared in the header but not exported:", n)
    for n in hooks:
        print("test hook or standard-library symbol exported:", n)
    if len(declared(header)) < 15:
        print("found too few declarations in", header)
        return 1
    return 1 if stray or missing or hooks else 0


if __name__ == "__main__":
    sys.exit(main())
