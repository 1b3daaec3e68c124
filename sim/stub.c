/* Stand-in for one of the scanner maker's helper libraries: the service only
 * loads it, so it exports one harmless function whose name the build picks. */
SIM_VISIBLE int SIM_STUB_FUNCTION(void) { return 0; }
