// A program that knows the library as a plug-in only: loads it after another one (argv[1]) that has
// taken most of what the system has for late thread-local storage, uses it and unloads it.
#include <dlfcn.h>
#include <stdio.h>

int main(int argc, char** argv) {
  if (argc != 3 || dlopen(argv[1], RTLD_NOW) == NULL) return 99;
  void* library = dlopen(argv[2], RTLD_NOW);
  if (library == NULL) {
    puts(dlerror());
    return 1;
  }
  int (*mod_is_running)(void) = NULL;
  *(void**)&mod_is_running = dlsym(library, "mod_is_running");
  if (mod_is_running == NULL || mod_is_running() != 1) return 2;
  dlclose(library);
#ifndef __SANITIZE_THREAD__  // whose runtime keeps what it has instrumented
  if (dlopen(argv[2], RTLD_NOW | RTLD_NOLOAD) != NULL) {
    puts("still loaded");
    return 3;
  }
#endif
  return 0;
}
