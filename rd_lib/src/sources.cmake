# Sources of rd_lib/src.
