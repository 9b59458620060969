"""Any record of a layout, for tests that are run with hypothesis."""

from __future__ import annotations

from collections.abc import Sequence

from hypothesis import strategies as st
from vorlinkit.catalogue import NUMBER_WIDTHS, BlobField, Field, ListField, ScalarField
from vorlinkit.wire.coder import uuid_text
from vorlinkit.wire.records import Record, Variant


def records(fields: Sequence[Field]) -> st.SearchStrategy[Record]:
    """Records whose counts fit their lists, and whose discriminators fit their alternatives."""
    return st.composite(made)(fields, {})


def scalars(field: ScalarField) -> st.SearchStrategy[int | str]:
    if field.kind == "string":
        return st.text(st.characters(blacklist_characters="\0", blacklist_categories=("Cs",)), max_size=8)
    if field.kind == "uuid":
        return st.binary(min_size=16, max_size=16).map(uuid_text)
    return st.integers(0, (1 << 8 * NUMBER_WIDTHS[field.kind]) - 1)


def made(draw: st.DrawFn, fields: Sequence[Field], forced: Record) -> Record:
    forced = dict(forced)
    lengths = {
        one.count: draw(st.integers(0, 3)) for one in fields if isinstance(one, (ListField, BlobField))
    }
    for field in fields:
        if not isinstance(field, (ScalarField, BlobField)):
            _force_discriminators(draw, field, forced)
    record: Record = {}
    for field in fields:
        if isinstance(field, ScalarField):
            record[field.key] = lengths.get(field.key, forced.get(field.key, draw(scalars(field))))
        elif isinstance(field, BlobField):
            record[field.key] = draw(st.binary(min_size=lengths[field.count], max_size=lengths[field.count]))
        elif isinstance(field, ListField):
            record[field.key] = [made(draw, field.items, forced) for _ in range(lengths[field.count])]
        else:
            outer = forced.get(field.on)
            options = [
                one for one in field.alternatives if field.inside or outer is None or outer in one.when
            ]
            chosen = draw(st.sampled_from(options))
            inner = {**forced, field.on: draw(st.sampled_from(chosen.when))} if field.inside else forced
            record[field.attribute] = Variant(chosen.name, made(draw, chosen.fields, inner))
    return record


def _force_discriminators(draw: st.DrawFn, field: Field, forced: Record) -> None:
    """Choose the number that a variant further in is going to look for out here."""
    if isinstance(field, ListField):
        for inner in field.items:
            _force_discriminators(draw, inner, forced)
    elif not isinstance(field, (ScalarField, BlobField)):
        if not field.inside and field.on not in forced:
            forced[field.on] = draw(
                st.sampled_from([when for one in field.alternatives for when in one.when])
            )
