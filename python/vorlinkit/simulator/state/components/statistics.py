"""Which statistics there are: exactly those that the layouts of the answers have a shape for."""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence

from vorlinkit.catalogue import Field, ListField, VariantField
from vorlinkit.wire.records import Known

from ..component import Handler, Services


class StatisticsComponent:
    """Reads the ids off the variants of the catalogue."""

    def __init__(self, machine: Services) -> None:
        self._machine = machine

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetSupportedStatistics": lambda client, request: self._supported("GetStatistics"),
            "GetSupportedArchiveStatistics": lambda client, request: self._supported("GetArchiveStatistics"),
        }

    def _supported(self, command: str) -> Known:
        response = self._machine.catalogue.named(command).response
        rows = _selectors(response.fields) if response is not None else ()
        return {"CommandError": 0, "listOfIDs": [{key: value} for key, value in rows]}


def _selectors(fields: Sequence[Field]) -> Iterator[tuple[str, int]]:
    for field in fields:
        if isinstance(field, ListField):
            yield from _selectors(field.items)
        elif isinstance(field, VariantField):
            yield from ((field.on, when) for alternative in field.alternatives for when in alternative.when)
