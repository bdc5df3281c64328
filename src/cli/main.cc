// SPDX-License-Identifier: GPL-2.0-only
#include "cli/cli.h"

int main(int argc, char** argv) { return zorv::cli::run(argc, argv); }
