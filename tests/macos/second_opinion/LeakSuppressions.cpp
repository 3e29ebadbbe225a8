// What Foundation's stand-in loses by itself, said to the leak checker: the runtime's tables of classes,
// which live as long as the process, and what the JSON reader had made before it met a fault. Nothing of
// ours is named here; what it makes ends with a ReleasePool.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libobjc.so\nleak:libgnustep-base.so\n";
}
