/* A reader that keeps its manager open. Each line of standard input names a variable ("PageCount", or "ServiceNote text"
 * for a text that the printer's model defines); the reader prints its value, until the input ends. It sees at once what
 * other processes write meanwhile.
 *
 *     reader "printer name" */
#include <stdio.h>
#include <string.h>

#include <tvsqdz_status.h>
#include <tvsqdz_variables.h>

enum type { NUMBER, STRING, RECORD, VARIABLE, COMPOSITE };

struct built_in {
    const char* name;
    enum type type;
};
#define ROW(name, type, size) {#name, type},
static const struct built_in built_ins[] = {TVS_BUILT_IN_VARIABLES(ROW)};

/* The list does not have the variables of printer models: they are shown as numbers or bytes, unless the user asks for
 * text. */
static enum type type_of(const char* name, uint32_t size) {
    for (size_t i = 0; i < sizeof built_ins / sizeof *built_ins; ++i)
        if (strcmp(built_ins[i].name, name) == 0) return built_ins[i].type;
    return size == 4 ? NUMBER : RECORD;
}

static void print_value(enum type type, const unsigned char* value, uint32_t size) {
    uint32_t number;

    switch (type) {
    case NUMBER:
        memcpy(&number, value, sizeof number);
        printf("%u", number);
        break;
    case STRING:
        printf("%.*s", (int)size, (const char*)value);
        break;
    default:
        for (uint32_t i = 0; i < size; ++i) printf("%s%02x", i ? " " : "", value[i]);
    }
    printf("\n");
}

int main(int argc, char** argv) {
    TvsManager manager;
    char name[256];

    if (argc != 2) {
        fprintf(stderr, "usage: reader \"printer name\"\n");
        return 2;
    }
    int32_t status = OpenManagerExA(argv[1], NULL, 3, &manager);
    if (status != TVS_OK) {
        fprintf(stderr, "reader: opening a manager: %s (status %d)\n", TvsStatusText(status), (int)status);
        return 1;
    }
    printf("open\n");
    fflush(stdout);
    while (fgets(name, sizeof name, stdin)) {
        unsigned char value[4096];
        uint32_t size;
        char* blank;
        int is_text;

        name[strcspn(name, "\n")] = '\0';
        blank = strchr(name, ' ');
        is_text = blank && strcmp(blank, " text") == 0;
        if (blank) *blank = '\0';
        status = GetPrinterStatusA(manager, name, value, sizeof value, &size);
        if (status == TVS_OK || (status == TVS_E_SIZE && size <= sizeof value)) {
            print_value(is_text ? STRING : type_of(name, size), value, size);
        } else {
            printf("status %d\n", (int)status);
        }
        fflush(stdout);
    }
    CloseManager(manager);
    return 0;
}
