// oriel-objects [--stays] RUN_DIRECTORY: the object server, with the product's rules for names. Processes start it by
// themselves; `--stays` is for a supervisor, which starts it before them. State: none here.
#include "product/reserved_names.h"

#include <oriel_objects.h>
#include <winerror.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

int main(int argc, char** argv) {
    const bool stays = argc == 3 && std::strcmp(argv[1], "--stays") == 0;
    if (argc != (stays ? 3 : 2)) {
        std::fputs("usage: oriel-objects [--stays] RUN_DIRECTORY\n", stderr);
        return 2;
    }
    ORIEL_RESERVED_NAME rules[std::size(product::kReservedNames)];
    for (size_t i = 0; i < std::size(rules); ++i) {
        const product::ReservedName& row = product::kReservedNames[i];
        rules[i] = {row.pattern, static_cast<DWORD>(row.kind), static_cast<DWORD>(row.others), row.ownerMakes};
    }
    const DWORD error = OrielServeObjects(argv[argc - 1], stays, rules, static_cast<DWORD>(std::size(rules)));
    if (error == ERROR_SUCCESS || error == ERROR_SERVICE_ALREADY_RUNNING) std::_Exit(0);
    std::fprintf(stderr, "oriel-objects: cannot serve %s: system error %u\n", argv[argc - 1], unsigned{error});
    std::_Exit(1);
}
