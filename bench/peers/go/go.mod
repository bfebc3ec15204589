module bench

go 1.19
