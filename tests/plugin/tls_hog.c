// A library with much thread-local storage of the kind that must be there when it is loaded.
__attribute__((tls_model("initial-exec"))) _Thread_local char hog[1400];

char* hog_of_thread(void);
char* hog_of_thread(void) { return hog; }
