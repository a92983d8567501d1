#!/usr/bin/env python3
"""A program of somebody else finds the installed library, by pkg-config and by CMake, also where it was moved to.

    install.py SDVMAKE SDV2AVI AVICHECK DATA_DIR CMAKE PKG_CONFIG CC BUILD_DIR
"""
import os
import sys
from pathlib import Path

from checks import go_through, run

CMAKE, PKG_CONFIG, CC, BUILD = sys.argv[5:]
PROGRAM = """
#include <Quorlin.h>
#include <libos.h>
#include <common_fun.h>
int main(void)
{
    return KtConvert_SDVtoAVI("nothing.sdv", "nothing.avi") == 0;
}
"""
PROJECT = """
cmake_minimum_required(VERSION 3.16)
project(consumer C)
find_package(quorlin 1.0 REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE quorlin::quorlin)
"""


def install():
    run(CMAKE, "--install", BUILD, "--prefix", "installed")
    Path("installed").rename("moved")
    Path("consumer.c").write_text(PROGRAM)
    Path("CMakeLists.txt").write_text(PROJECT)


def by_pkg_config():
    found = next(Path("moved").resolve().rglob("quorlin.pc")).parent
    flags = run(PKG_CONFIG, "--cflags", "--libs", "quorlin", env={**os.environ, "PKG_CONFIG_PATH": str(found)}).stdout
    run(CC, "consumer.c", "-o", "consumer", *flags.split())
    run("./consumer", text=False, env={**os.environ, "LD_LIBRARY_PATH": str(found.parent)})


def by_cmake():
    run(CMAKE, "-S", ".", "-B", "build", f"-DCMAKE_PREFIX_PATH={Path('moved').resolve()}")
    run(CMAKE, "--build", "build")
    run("build/consumer", text=False)


go_through(((check.__name__, check) for check in (by_pkg_config, by_cmake)), install)
