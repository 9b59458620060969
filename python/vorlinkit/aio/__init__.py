"""The typed client for asyncio."""
