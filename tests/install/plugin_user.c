/* Opens the plugin at the given path. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
  void *plugin = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
  void *symbol = plugin != NULL ? dlsym(plugin, "plugin_records") : NULL;
  if (symbol == NULL) {
    fprintf(stderr, "%s\n", argc == 2 ? dlerror() : "usage: plugin_user PLUGIN");
    return 1;
  }
  int (*records)(void);
  memcpy(&records, &symbol, sizeof(records)); /* C has no cast from a pointer to data */
  printf("%d records through a plugin\n", records());
  return 0;
}
