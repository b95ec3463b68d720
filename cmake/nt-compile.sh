#!/bin/bash
# Compiler launcher of the nt build: nt-compile.sh ROOT COMMAND...
# The debug information holds the compiler's whole command line, so absolute paths of the tree would reach the PDB and,
# through its identity, the image. They are replaced by a symbolic link of a fixed name in the build directory.
root=$1
shift
exec "${@//"$root"/source}"
