"""The tools, and ``health``: the extension module, which the build puts into this directory."""
