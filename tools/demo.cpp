// tools/demo.cpp - a short demonstration of the library as it stands: the
// shell runner, the first-line file reader and the rc environment reader.
#include <cstdio>

#include "qorcfg.h"

int main() {
    char line[256];
    if (get_file_content("/proc/version", line) == 0)
        std::printf("kernel:          %s\n", line);
    std::printf("qor_system(\"true\") = %d\n", qor_system("true"));
    std::printf("qor_system(NULL)   = %d\n", qor_system(nullptr));
    std::printf("get_pid(\"qorcfg_demo\") = %d\n", get_pid("qorcfg_demo"));
    std::printf("qor_ping(\"10.0.0.1; true\") = %d (refused)\n", qor_ping("10.0.0.1; true"));
    qorcfg_print("diagnostics go to standard error unless QORCFG_PRINT_ERR=0\n");
    return 0;
}
