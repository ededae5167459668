// Says its word size and which file of the shim it has loaded, if any.
#include <stdio.h>
#include <string.h>

int main(void) {
    char line[4096];
    char loaded[4096] = "nothing";
    FILE* maps = fopen("/proc/self/maps", "r");
    while (maps != NULL && fgets(line, sizeof line, maps) != NULL) {
        if (strstr(line, "libtolvane.so") != NULL) strcpy(loaded, strchr(line, '/'));
    }
    printf("%d %s\n", (int)sizeof(void*) * 8, strtok(loaded, "\n"));
    return 0;
}
