# Sources of src/semaphore.
