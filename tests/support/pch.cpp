// Gives the target that builds the tests' precompiled header a source file to compile.
#include "support/pch.h"
