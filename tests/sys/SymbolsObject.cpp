// A shared object for dlsym_e() to look into.

extern "C" {

__attribute__((visibility("default"))) int boardkit_test_function() {
  return 42;
}

__attribute__((visibility("default"))) int boardkit_test_variable = 7;
}

// A symbol that exists and whose value is null: compilers do not produce one.
__asm__(
    ".globl boardkit_test_null\n"
    ".set boardkit_test_null, 0\n");
