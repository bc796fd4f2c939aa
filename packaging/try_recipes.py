"""Tries the recipes for Yocto and Buildroot as far as this machine can: configures, builds and installs with their options,
and compares what was installed with the files that they name. Their own tools are not used."""

import fnmatch
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
WORK = SOURCE / "build/recipes"
FEATURES = ("systemd", "tools", "web")


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)
    if done.returncode != 0:
        sys.exit(f"try_recipes: {' '.join(map(str, command))} failed:\n{done.stdout}")
    return done.stdout


LIBDIR = f"/usr/lib/{run('gcc', '-print-multiarch').strip()}"  # where a Debian machine has it
FOLDERS = {"bindir": "/usr/bin", "sbindir": "/usr/sbin", "libdir": LIBDIR, "nonarch_libdir": "/usr/lib", "datadir": "/usr/share",
           "systemd_system_unitdir": "/usr/lib/systemd/system", "PYTHON_SITEPACKAGES_DIR": "/usr/lib/python3.12/site-packages",
           "PN": "fotad", "WORKDIR": "."}
# What packages take besides, with Yocto's defaults; in the order that files are given out.
DEFAULTS = {"fotad-staticdev": f"{LIBDIR}/*.a", "fotad-dev": f"/usr/include {LIBDIR}/lib*.so {LIBDIR}/cmake {LIBDIR}/pkgconfig",
            "fotad-doc": "/usr/share/doc /usr/share/man", "fotad": "/usr/bin/* /usr/sbin/* /usr/libexec/* /etc"}


def expand(text, folders):
    return re.sub(r"\$\{(\w+)\}", lambda found: folders[found[1]], text)


def read_yocto():
    """The options, the packages with their files, and the step after the installation."""
    text = (SOURCE / "packaging/yocto/fotad_git.bb").read_text(encoding="utf-8")
    value = {name: content for name, content in re.findall(r'^([\w:{}$\[\]-]+) (?:\?\?=|=\+|\+=|=) "(.*)"$', text, re.MULTILINE)}
    options = value["EXTRA_OECMAKE"].split() + [value[f"PACKAGECONFIG[{feature}]"].split(",")[0] for feature in FEATURES]
    files = {}
    for name in [*value["PACKAGES"].split(), *DEFAULTS]:
        own = value.get(f"FILES:{name.replace('fotad', '${PN}')}", "")
        files[name] = [*DEFAULTS.get(name, "").split(), *expand(own, FOLDERS).split()]
    step = re.search(r"^do_install:append\(\) \{\n(.*?)^\}", text, re.MULTILINE | re.DOTALL)[1]
    return options, files, step


def read_buildroot():
    """What make says of the options, with all features on."""
    tree = SOURCE / "packaging/buildroot"
    rules = f"""cmake-package = $(info $(FOTAD_CONF_OPTS))
BR2_EXTERNAL_FOTA_PATH = {tree}
BR2_PACKAGE_SYSTEMD = y
BR2_PACKAGE_FOTAD_TOOLS = y
BR2_PACKAGE_FOTAD_WEB = y
include {tree}/external.mk
sources: ; @ls $(FOTAD_SITE)/CMakeLists.txt
.PHONY: sources
"""
    lines = run("make", "-s", "-f", "-", "sources", input=rules).splitlines()
    return lines[0].split()


def install(name, options):
    destination = WORK / name
    shutil.rmtree(destination, ignore_errors=True)
    run("cmake", "-G", "Ninja", "-S", SOURCE, "-B", WORK / "build", "-DCMAKE_INSTALL_PREFIX=/usr", *options)
    run("cmake", "--build", WORK / "build")
    run("cmake", "--install", WORK / "build", env={**os.environ, "DESTDIR": str(destination)})
    return destination


def installed(folder):
    return ["/" + str(path.relative_to(folder)) for path in sorted(folder.rglob("*")) if path.is_symlink() or not path.is_dir()]


def takes(pattern, file):
    return fnmatch.fnmatch(file, pattern) or file.startswith(pattern + "/")


def main():
    complaints = []
    options, packages, step = read_yocto()
    root = install("yocto", options)
    run("sh", "-ec", expand(step, {**FOLDERS, "D": str(root)}))
    left = installed(root)
    for package, patterns in packages.items():
        own = [file for file in left if any(takes(pattern, file) for pattern in patterns)]
        left = [file for file in left if file not in own]
        print(f"yocto: {package}: {' '.join(own) if len(own) < 12 else f'{len(own)} files'}")
        complaints += [] if own else [f"yocto: nothing for {package}"]
        for pattern in patterns if package not in DEFAULTS else []:
            if not any(takes(pattern, file) for file in installed(root)):
                complaints.append(f"yocto: nothing for {pattern} of {package}")
    complaints += [f"yocto: no package takes {file}" for file in left]

    target = installed(install("buildroot", read_buildroot()))
    for file in ("/usr/sbin/fotad", "/usr/bin/fotactl", "/usr/sbin/fotaweb", "/usr/lib/systemd/system/fotad.service",
                 "/etc/init.d/fotad"):
        complaints += [] if file in target else [f"buildroot: no {file}"]
    print(f"buildroot: {len(target)} files")
    sys.exit("\n".join(complaints) or None)


if __name__ == "__main__":
    main()
