// avi_verify FILE...: the strict check as a program, for the scripts. Exit 1 when a file is not sound.
#include "avi_check.h"

#include <cstdio>

int main(int argc, char** argv)
{
    bool sound = argc > 1;
    for (int i = 1; i < argc; ++i) {
        const avi::Report report = avi::check_file(argv[i]);
        printf("%s", avi::describe(report).c_str());
        sound = sound && report.sound();
    }
    return sound ? 0 : 1;
}
