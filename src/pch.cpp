// Gives the target that builds the precompiled header a source file to compile.
#include "pch.h"
