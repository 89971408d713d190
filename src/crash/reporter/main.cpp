#include "crash/reporter/CrashReporterProgram.h"

int main(int argc, char* argv[])
{
    return CrashReporterProgram::main(argc, argv);
}
