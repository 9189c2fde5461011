#include <cstdio>
#include <exception>

#include "core/startup.h"

int main(int argumentCount, char** arguments) {
    try {
        return qm::runProgram({arguments + (argumentCount > 0 ? 1 : 0), arguments + argumentCount});
    } catch (const std::exception& failure) {
        std::printf("fatal: %s\n", failure.what());
        return 1;
    }
}
