#!/usr/bin/env python3
"""A program of somebody else finds the installed library, by pkg-config and by CMake, also where it was moved to.

    install.py CMAKE PKG_CONFIG CC BUILD_DIR
"""
import os
import subprocess
import sys
import tempfile
from pathlib import Path

PROGRAM = """
#include <Quorlin.h>
#include <libos.h>
#include <common_fun.h>
int main(void)
{
    unsigned char key[16] = {0};
    SetDecryptKey(key, sizeof(key));
    return KtConvert_SDVtoAVI("nothing.sdv", "nothing.avi") != 0 ? 0 : 1;
}
"""
PROJECT = """
cmake_minimum_required(VERSION 3.16)
project(consumer C)
find_package(quorlin 1.0 REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE quorlin::quorlin)
"""


def run(*command, **more):
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120, **more)
    assert done.returncode == 0, f"{command}: exit code {done.returncode}\n{done.stdout}"
    return done.stdout


def main():
    cmake, pkg_config, cc, build = sys.argv[1:]
    with tempfile.TemporaryDirectory() as directory:
        work, prefix = Path(directory), Path(directory) / "moved"
        run(cmake, "--install", build, "--prefix", work / "installed")
        (work / "installed").rename(prefix)
        (work / "consumer.c").write_text(PROGRAM)
        (work / "CMakeLists.txt").write_text(PROJECT)

        found = next(prefix.rglob("quorlin.pc")).parent
        flags = run(pkg_config, "--cflags", "--libs", "quorlin", env={**os.environ, "PKG_CONFIG_PATH": str(found)})
        run(cc, "consumer.c", "-o", "consumer", *flags.split(), cwd=work)
        run(work / "consumer", cwd=work, env={**os.environ, "LD_LIBRARY_PATH": str(found.parent)})

        run(cmake, "-S", work, "-B", work / "build", f"-DCMAKE_PREFIX_PATH={prefix}")
        run(cmake, "--build", work / "build")
        run(work / "build/consumer", cwd=work)


main()
