// Test plugin loaded by the Library tests.
extern "C" __attribute__((visibility("default"))) int kestrel_probe_answer() {
  return 42;
}
