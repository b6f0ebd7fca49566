"""What runs for as long as the server: the guarded call, the MCP conversation, and the saver."""
