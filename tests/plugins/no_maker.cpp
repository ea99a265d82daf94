// A library that is no plug-in.
extern "C" int something_else() { return 0; }
