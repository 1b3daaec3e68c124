// Filled in with the lock area of the platform layer.
