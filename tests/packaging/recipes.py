#!/usr/bin/env python3
"""Checks the recipes without their build systems: the release's number, the options for CMake, and that
the install step makes the files that they take, with these options.

    tests/packaging/recipes.py CMAKE WORK_DIR

make reads the recipes of Buildroot and OpenWrt, with stand-ins for the files that these include, and
runs OpenWrt's install steps. A function below reads the assignments of the Yocto recipe.
"""

import fnmatch
import os
import re
import shutil
import subprocess
import sys

SOURCE = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
PACKAGING = SOURCE + "/packaging"
failures = []


def check(holds, text):
    if not holds:
        failures.append(text)


def run(*command, **more):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, **more).stdout


def read(path):
    with open(path) as file:
        return file.read()


def files_in(folder):
    return {os.path.relpath(os.path.join(path, name), folder)
            for path, _, names in os.walk(folder) for name in names}


def stage(cmake, work, options):
    """Returns a folder with the files that a build with the options installs below /usr. No option changes
    what is compiled, so there is one build."""
    root = work + ("/liblog" if "-DTESSRA_INSTALL_LIBLOG=ON" in options else "/plain")
    if not os.path.exists(root):
        said = run(cmake, "-S", SOURCE, "-B", work + "/build", "-DCMAKE_INSTALL_PREFIX=/usr",
                   "-DCMAKE_INSTALL_LIBDIR=lib", "-DCMAKE_BUILD_TYPE=Debug", *options, stderr=subprocess.STDOUT)
        check("not used by the project" not in said, f"options that nobody knows: {said}")
        run(cmake, "--build", work + "/build", "-j2")
        run(cmake, "--install", work + "/build", env=dict(os.environ, DESTDIR=root))
    return root


def check_options(who, options):
    known = set(re.findall(r"TESSRA_[A-Z_]+", read(SOURCE + "/CMakeLists.txt")))
    for option in options:
        name = re.match(r"-D(\w+)=", option)
        check(name and (name[1] in known or name[1].startswith("CMAKE_")), f"{who}: {option}?")


def buildroot(cmake, work):
    recipe = f"{PACKAGING}/buildroot/package/tessra/tessra.mk"
    for liblog in ("y", ""):
        show = f"{work}/buildroot.mk"
        with open(show, "w") as file:
            file.write(f"BR2_EXTERNAL_TESSRA_PATH = {PACKAGING}/buildroot\nBR2_PACKAGE_TESSRA_LIBLOG = {liblog}\n"
                       "define cmake-package\n$(info evaluated)\nendef\n"
                       "include $(BR2_EXTERNAL_TESSRA_PATH)/external.mk\n"
                       "all:\n\t@echo '$(TESSRA_VERSION)|$(TESSRA_SITE)|$(TESSRA_CONF_OPTS)'\n")
        evaluated, text = run("make", "-s", "-f", show).splitlines()
        version, site, options = text.split("|")
        check(evaluated == "evaluated" and version == VERSION and site == SOURCE, f"buildroot: {text}")
        check_options("buildroot", options.split())
        files = files_in(stage(cmake, work, options.split()))
        check(("usr/lib/liblog.so" in files) == bool(liblog), "buildroot: liblog")
    defined = set(re.findall(r"^config BR2_(\w+)", read(os.path.dirname(recipe) + "/Config.in"), re.M))
    used = set(re.findall(r"BR2_(PACKAGE_\w+)", read(recipe)))
    check(used <= defined and "PACKAGE_TESSRA" in defined, f"buildroot: {used} of {defined}")


OPENWRT_STUB = """
define BuildPackage
$(1)-install:
\t$$(call Package/$(1)/install,$(TO)/$(1))
endef
all: dev
dev:
\t$(call Build/InstallDev,$(TO)/dev)
show:
\t@echo '$(PKG_VERSION)|$(TESSRA_SOURCE)|$(CMAKE_OPTIONS)'
prepare:
\t$(call Build/Prepare)
"""


def openwrt(cmake, work):
    top = work + "/openwrt"
    os.makedirs(top + "/include")
    for stub, text in {"rules.mk": "INCLUDE_DIR:=$(TOPDIR)/include\nBUILD_DIR:=$(TOPDIR)/build\n"
                                   "INSTALL_DIR:=mkdir -p\nCP:=cp -fpR\n",
                       "include/package.mk": "", "include/cmake.mk": OPENWRT_STUB}.items():
        with open(f"{top}/{stub}", "w") as file:
            file.write(text)

    def make(*targets):
        return run("make", "-s", "-f", PACKAGING + "/openwrt/tessra/Makefile", "TOPDIR=" + top,
                   f"TO={top}/to", "PKG_INSTALL_DIR=" + root, *targets)

    root = ""
    version, source, options = make("show").strip().split("|")
    check(version == VERSION and source == SOURCE, f"openwrt: {version} of {source}")
    if source != SOURCE:
        return  # The next step would copy another folder.
    check_options("openwrt", options.split())
    root = stage(cmake, work, options.split())
    make("prepare", "dev", "libtessra-install", "libtessra-liblog-install")
    prepared = files_in(f"{top}/build/tessra-{VERSION}")
    check("CMakeLists.txt" in prepared and not any(name.startswith("build/") for name in prepared),
          "openwrt: what is prepared")
    check(files_in(top + "/to/libtessra") == {"usr/lib/libtessra.so.1"}, "openwrt: libtessra")
    check(files_in(top + "/to/libtessra-liblog") == {"usr/lib/liblog.so"}, "openwrt: libtessra-liblog")
    left = {name for name in files_in(root) - files_in(top + "/to/dev") if not name.startswith("usr/share/")}
    check(not left, f"openwrt: nobody takes {left}")


def yocto(cmake, work):
    recipe, = [name for name in files_in(PACKAGING + "/yocto") if name.endswith(".bb")]
    check(recipe == f"recipes-support/tessra/tessra_{VERSION}.bb", f"yocto: {recipe}")
    text = read(f"{PACKAGING}/yocto/{recipe}").replace("\\\n", " ")
    values = {}
    for line in text.splitlines():
        found = re.fullmatch(r'([\w:${}\[\]-]+) (\?\?=|\?=|=|=\+|\+=) "(.*)"', line)
        check(found or not line or line.startswith(("#", "inherit ")), f"yocto: can't be read: {line}")
        if found:
            values[found[1]] = found[3]
    here = os.path.dirname(f"{PACKAGING}/yocto/{recipe}")
    site = re.search(r"\$\{THISDIR\}/([./]+)", values["EXTERNALSRC"])
    check(site and os.path.realpath(f"{here}/{site[1]}") == SOURCE, "yocto: EXTERNALSRC")
    on, off = values["PACKAGECONFIG[liblog]"].split(",")
    variables = {"libdir": "/usr/lib", "includedir": "/usr/include", "mandir": "/usr/share/man",
                 "docdir": "/usr/share/doc", "PN": "tessra"}

    def expand(value):
        return re.sub(r"\$\{(\w+)\}", lambda found: variables[found[1]], value)

    packages = {expand(name)[6:]: expand(value).split() for name, value in values.items()
                if name.startswith("FILES:")}
    for option in (on, off):
        options = values["EXTRA_OECMAKE"].split() + [option]
        check_options("yocto", options)
        for name in files_in(stage(cmake, work, options)):
            takers = [package for package, patterns in packages.items() for pattern in patterns
                      if fnmatch.fnmatchcase("/" + name, pattern) or ("/" + name).startswith(pattern + "/")]
            check(len(takers) == 1, f"yocto: {name} goes to {takers}")


def main(cmake, work):
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    for system in (buildroot, openwrt, yocto):
        system(cmake, work)
    for failure in failures:
        print("recipes: " + failure, file=sys.stderr)
    if failures:
        sys.exit(1)
    print("recipes: buildroot, openwrt and yocto agree with the install step")


VERSION = re.search(r"project\(tessra VERSION ([\d.]+)", read(SOURCE + "/CMakeLists.txt"))[1]
if __name__ == "__main__":
    main(*sys.argv[1:])
