// Filled in with the socket area of the platform layer.
