"""The typed client: `Machine`, what it raises, and the connection below it."""
