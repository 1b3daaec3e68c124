# Sources of src/postauth.
