// Filled in with the fileid area of the platform layer.
