# Sources of src/web_service.
