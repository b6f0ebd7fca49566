"""Services that know nothing of tools."""
