"""VorlinKit for Python: everything around the extension module ``vorlinkit_python`` that is pure Python.

* ``vorlinkit.catalogue``: the commands of the protocol and how sure each payload layout is.
* ``vorlinkit.simulator``: a machine to talk to when none is at hand (``python3 -m vorlinkit.simulator``).

Nothing in here needs the extension module, and nothing needs more than the standard library.
"""
