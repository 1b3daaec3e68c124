# Sources of src/ssl.
