// SPDX-License-Identifier: Apache-2.0
#include "../client.h"

int main(int argc, char **argv)
{
    return argc == 2 ? client(argv[1]) : 2;
}
