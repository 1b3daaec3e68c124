/* Stand-in for one of the scanner maker's helper libraries: the service only
 * loads it, so it exports one harmless function whose name the build picks. */
__attribute__((visibility("default"))) int SIM_STUB_FUNCTION(void) { return 0; }
