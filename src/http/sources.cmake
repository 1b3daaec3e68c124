# Sources of src/http.
