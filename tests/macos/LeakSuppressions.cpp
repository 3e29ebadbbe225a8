// What GNUstep keeps until the end of the process by design, said to the leak checker. Nothing of ours
// is named here: an object of ours that leaks is reported, because its allocation passes through our
// own frames only after GNUstep's.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:libgnustep-base.so\n"; }
