/* The askpass program of the test bundle. ssh runs it, with its working
 * directory the helper's temporary directory, when it needs a secret; it
 * prints the contents of "<CS_UNIQUE_IDENTIFIER>.askpass" from there, and
 * fails when that file does not exist. */
#include <stdio.h>
#include <stdlib.h>

int main(void) {
    const char* name = getenv("CS_UNIQUE_IDENTIFIER");
    if (!name || !*name) return 1;
    char path[4096];
    if (snprintf(path, sizeof path, "%s.askpass", name) >= (int)sizeof path) return 1;
    FILE* file = fopen(path, "r");
    if (!file) return 1;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, file)) > 0) fwrite(buffer, 1, n, stdout);
    fclose(file);
    return 0;
}
