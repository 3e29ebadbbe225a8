// The Objective-C runtime and GNUstep keep classes and caches until the end of the process, and every
// Objective-C object is allocated in there, out of the sight of the leak checker, which cannot walk
// through their frames. So it watches our C++ alone; that our Objective-C objects go is shown by the
// tests that watch what those hold.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libgnustep-base.so\nleak:libobjc.so\n";
}
