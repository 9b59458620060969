"""VorlinKit for Python: everything around the extension module ``vorlinkit_python`` that is pure Python.

* ``vorlinkit.catalogue``: the commands of the protocol, what each does, and how sure each payload layout is.
* ``vorlinkit.wire``: frames and payloads as bytes, read and written by the layouts of the catalogue.
* ``vorlinkit.simulator``: a machine to talk to when none is at hand (``python3 -m vorlinkit.simulator``).

Nothing in here needs the extension module, and nothing needs more than the standard library.
"""
