"""What travels: frames, and payloads read and written by the layouts of the catalogue.

In pure Python and written apart from the C++ library, so that the two can be checked against each other.

* ``frames``: the three frame headers.
* ``records``: how a payload is held.
* ``coder``: payload bytes to records and back.
* ``render``: a record as one line of JSON.
"""
